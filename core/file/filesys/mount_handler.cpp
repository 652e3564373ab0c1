#include "filesys/mount_handler.h"

#include <cstdlib>
#include <new>

namespace {

// The drivers in the order in which they judge a disk.  FAT goes first:
// its identification is weak (a jump byte and a plausible BPB), which is
// why its consistency rules must stay strict.  A driver that is not part
// of the build has no creator and is skipped.
struct DetectionStep {
  int row;
  bool inCommon;  // tried by DetectCommon too
};
constexpr DetectionStep kDetectionOrder[] = {
    {kCreateFat, true}, {kCreateNtfs, true}, {kCreateRefs, false},
    {kCreateExt, true}, {kCreateXfs, false}, {kCreateHfsPlus, true},
};

FileSystemMountHandler* Detect(bool common, Fdisk::SimpleDisk* disk, uint64_t startSector,
                               uint64_t sectors, uint32_t handlerId, const uint8_t* bootSector,
                               const uint8_t* visibleBitmap, uint64_t bitmapBits) {
  void* block = nullptr;
  if (bootSector == nullptr) {
    const uint32_t ss = disk->GetSectorSize();
    if (ss == 0 || ss > 65536 || (ss & (ss - 1)) != 0) return nullptr;
    block = std::malloc(2 * size_t(ss) - 1);
    if (block == nullptr) return nullptr;
    auto* aligned = reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(block) + ss - 1) &
                                               ~uintptr_t(ss - 1));
    if (disk->IoOp(Fdisk::DiskRead, startSector, aligned, 1).IsError()) {
      std::free(block);
      return nullptr;
    }
    bootSector = aligned;
  }
  FileSystemMountHandler* result = nullptr;
  for (const DetectionStep& step : kDetectionOrder) {
    if (common && !step.inCommon) continue;
    FileSystemCreator create = FileSystemTable(step.row).create;
    if (create == nullptr) continue;
    result = create(disk, startSector, sectors, handlerId, bootSector, visibleBitmap, bitmapBits);
    if (result != nullptr) break;
  }
  std::free(block);
  return result;
}

}  // namespace

FileSystemMountHandler* DetectAll(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                  uint32_t handlerId, const uint8_t* bootSector,
                                  const uint8_t* visibleBitmap, uint64_t bitmapBits) {
  return Detect(false, disk, startSector, sectors, handlerId, bootSector, visibleBitmap, bitmapBits);
}

FileSystemMountHandler* DetectCommon(Fdisk::SimpleDisk* disk, uint64_t startSector, uint64_t sectors,
                                     uint32_t handlerId, const uint8_t* bootSector,
                                     const uint8_t* visibleBitmap, uint64_t bitmapBits) {
  return Detect(true, disk, startSector, sectors, handlerId, bootSector, visibleBitmap, bitmapBits);
}

const FileSystemTableRow& FileSystemTable(int row) {
  // The masks are those of the drivers each row may create, built or not.
  static const FileSystemTableRow kTable[kFileSystemTableRows] = {
      {&DetectAll, 0xDFF1},
      {&DetectCommon, 0xC5F1},
      {&CreateExt, 0x0071},
      {&CreateFat, 0xC001},
      {nullptr, 0x0181},  // HFS+
      {nullptr, 0x0401},  // NTFS
      {nullptr, 0x1801},  // ReFS, then ReFS version 1
      {&CreateXfs, 0x0201},
  };
  static const FileSystemTableRow kNone{nullptr, 0};
  return row >= 0 && row < kFileSystemTableRows ? kTable[row] : kNone;
}

rio_dir* Mount(int row, std::unique_ptr<Fdisk::SimpleDisk>& disk) {
  if (!disk) return nullptr;
  FileSystemCreator create = FileSystemTable(row).create;
  if (create == nullptr) return nullptr;
  NewHandlerGuard guard;
  FileSystemMountHandler* handler = nullptr;
  try {
    const uint64_t sectors = disk->GetLastSector() + 1;
    handler = create(disk.get(), 0, sectors, 0, nullptr, nullptr, 0);
  } catch (...) {
    handler = nullptr;
  }
  if (handler == nullptr) return nullptr;
  handler->AddRef();
  handler->flags |= FileSystemMountHandler::kOwnsDisk;
  disk.release();
  rio_dir* root = nullptr;
  try {
    root = handler->OpenRootDir();
  } catch (...) {
    root = nullptr;
  }
  // The root holds its own count; without it this was the last one, and the
  // driver goes with the disk it now owns.
  if (handler->ReleaseRef() == 0) delete handler;
  return root;
}
