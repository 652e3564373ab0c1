// The body of the file-system fuzz targets: mount a sparse disk with one
// row of the mount table, then walk every directory, look every entry up by
// its name and by its identifier, ask every attribute and read every file
// and link.  Whatever the bytes, the driver answers with an error or with
// data, and never faults, hangs or reads outside the disk (ASan and UBSan
// watch).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "file/dir.h"
#include "filesys/mount_handler.h"
#include "sparse_disk.h"

namespace fuzz {

// Bounds of the walk itself, so that one input stays quick; the driver has
// its own bounds and must not need these.
struct WalkBudget {
  int entries;
  uint64_t bytes = 8u << 20;
};

inline void ReadWholeFile(ri_file& file, WalkBudget& budget) {
  static std::vector<char> buffer(64 * 1024 + 7);
  const int64_t size = file.GetSize();
  if (size < 0) return;
  // Once aligned, once not, and once from the middle of a block.
  for (int64_t start : {int64_t(0), int64_t(7), size / 2 + 3}) {
    file.Seek(start);
    for (int i = 0; i < 4 && budget.bytes > 0; ++i) {
      uint64_t got = 0;
      file.Read(buffer.data() + (start & 7), 64 * 1024, got);
      budget.bytes -= got < budget.bytes ? got : budget.bytes;
      if (file.HasError() || got == 0) break;
    }
    file.TakeError();
  }
}

inline void WalkDirectory(rio_dir& dir, WalkBudget& budget, int depth) {
  if (depth > 12) return;
  std::unique_ptr<i_dir::iterator> it(dir.GetIterator());
  if (!it) return;
  for (; !it->HasError() && --budget.entries > 0; it->Next()) {
    const std::u16string name = it->FileName();
    it->ShortName();
    it->Size();
    it->SizeOnDisk();
    it->ModificationTime();
    it->StatusChangeTime();
    it->CreationTime();
    it->AccessTime();
    it->DOSAttributes();
    it->UnixPermissions();
    it->HardLinkCount();
    it->OwnerID();
    it->DeviceMajor();
    it->DeviceMinor();
    it->SymbolicLinkTarget();
    it->InodeId();
    std::unique_ptr<file_identifier> id(it->GetIdentifier());
    if (name.empty()) continue;
    try {
      // The entry again by its name, as a lookup finds it.
      std::unique_ptr<i_dir::iterator> again(dir.GetIterator(name.c_str()));
    } catch (const Common::Error&) {
      // Names the faces refuse (a "/" cannot come from the driver, but an
      // empty or odd one may) are an answer too.
    }
    if (FileTypes::IsDirectoryLike(it->FileType())) {
      std::unique_ptr<rio_dir> sub(dir.OpenDir(name.c_str()));
      if (sub) WalkDirectory(*sub, budget, depth + 1);
    } else {
      std::unique_ptr<ri_file> file(dir.Open(name.c_str(), true));
      if (file) ReadWholeFile(*file, budget);
      std::unique_ptr<ri_file> byId(id ? dir.Open(id.get(), true) : nullptr);
    }
  }
}

// One fuzz input: a disk of `sectors` sectors mounted with table row `row`.
inline int MountAndWalk(const uint8_t* data, size_t size, uint64_t sectors, int row, int entries) {
  std::unique_ptr<Fdisk::SimpleDisk> disk = std::make_unique<SparseDisk>(data, size, sectors);
  std::unique_ptr<rio_dir> root(Mount(row, disk));
  if (!root) return 0;
  char16_t label[64];
  root->GetVolumeLabel(label, 64);
  uint64_t total, free, available;
  root->GetDriveSize(total, free, available);
  root->TakeError();
  WalkBudget budget{entries};
  try {
    WalkDirectory(*root, budget, 0);
  } catch (const Common::Error&) {
    // Opening calls may throw on names the faces refuse; that is an answer.
  }
  return 0;
}

}  // namespace fuzz
