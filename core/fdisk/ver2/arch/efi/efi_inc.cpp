// Block devices of the firmware as sector devices, and the list of them.
#include "fdisk/ver2/efi_inc.h"

#include <cstring>

namespace Fdisk {

namespace {

using EfiLoader::EfiHandle;
using EfiLoader::EfiStatus;

constexpr uint64_t kErrorBit = 0x8000000000000000ull;
constexpr uint64_t kBufferTooSmall = kErrorBit | 5;
constexpr uint64_t kUnsupported = kErrorBit | 3;
constexpr uint64_t kInvalidParameter = kErrorBit | 2;
constexpr uint64_t kNotReady = kErrorBit | 6;

const char16_t* const kErrorTexts[] = {
    u"The image has an unknown format or is corrupted.",
    u"One of the parameters has an invalid value.",
    u"The image type is not supported.",
    u"An invalid buffer size.",
    u"The allocated buffer size is smaller than necessary.",
    u"The device is not ready.",
    u"A device error.",
    u"Write protected.",
    u"Out of resources.",
    u"The volume is corrupted.",
    u"The volume is full.",
    u"There is no media.",
    u"Media has been changed.",
    u"Failed to find.",
    u"Access is denied.",
    u"There is no response.",
    u"There is no mapping.",
    u"Timeout.",
    u"Not started.",
    u"Already started.",
    u"The operation has been aborted.",
    u"ICMP error.",
    u"TFTP error.",
    u"Protocol error.",
};
const char16_t* const kWarningTexts[] = {
    u"Warning: Unknown glyph.",
    u"Warning: Deletion failure.",
    u"Warning: Writing failure.",
    u"Warning: Buffer is too small.",
};
constexpr uint64_t kErrorCount = sizeof kErrorTexts / sizeof kErrorTexts[0];
constexpr uint64_t kWarningCount = sizeof kWarningTexts / sizeof kWarningTexts[0];

// The rows of the device-path node table: the node kinds by which the
// firmware presents a device that the loader may use.  Sorted by type.
struct NodeKind {
  uint8_t type;
  uint8_t subtype;
};
constexpr NodeKind kKnownNodes[] = {
    {1, 1},   {1, 2},   {1, 3},   {1, 4},   {1, 5},                          // hardware
    {2, 1},   {2, 2},   {2, 3},                                              // ACPI
    {3, 1},   {3, 2},   {3, 3},   {3, 4},   {3, 5},   {3, 6},   {3, 9},      // messaging
    {3, 10},  {3, 11},  {3, 12},  {3, 13},  {3, 14},  {3, 15},  {3, 16},
    {3, 17},  {3, 18},  {3, 19},  {3, 20},  {3, 21},  {3, 22},  {3, 23},
    {4, 1},   {4, 2},   {4, 3},   {4, 4},   {4, 5},   {4, 6},   {4, 7},   {4, 8},  // media
    {5, 1},                                                                  // BIOS boot
    {127, 1}, {127, 255},                                                    // ends
    {255, 1},
};
static_assert(sizeof kKnownNodes / sizeof kKnownNodes[0] == 41);

bool IsEndOfEntire(uint8_t type, uint8_t subtype) { return (type & 0x7F) == 127 && subtype == 255; }

uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }

EfiLoader::FirmwareBlocks* Blocks() { return EfiLoader::Fw().Blocks(); }

}  // namespace

Common::Error EfiStatusError(const Common::ErrorLocation& where, uint64_t status) {
  if (status == 0) return Common::Error();
  if ((status & kErrorBit) != 0) {
    const uint64_t n = status & ~kErrorBit;
    if (n >= 1 && n <= kErrorCount)
      return Common::Error(where, uint32_t(0x10D000 + n), kErrorTexts[n - 1]);
  } else if (status <= kWarningCount) {
    return Common::Error(where, uint32_t(0x10D018 + status), kWarningTexts[status - 1]);
  }
  return Common::Error(where, 0x10D01D, u"An unknown error.");
}

Common::Error EfiStatus2FdiskError(uint64_t status) { return EfiStatusError(ERROR_HERE, status); }

Common::Error InvalidOperationError(const Common::ErrorLocation& where) {
  return Common::Error(where, Codes::InvalidDiskOperation, u"An invalid disk operation.");
}

Common::Error SimpleDisk::GetPlatformHandle(void*& handle) {
  handle = nullptr;
  return Common::Error(ERROR_HERE, Codes::NotImplemented, u"The code is not implemented.");
}

// Device paths

bool DevicePathWalker::Next(DevicePathNode& node) {
  if (reachedEnd_ || size_ < 4 || pos_ > size_ - 4) return false;
  const uint8_t* p = bytes_ + pos_;
  const size_t length = size_t(p[2]) | size_t(p[3]) << 8;
  if (length < 4 || length > size_ - pos_) return false;
  const DevicePathNode here{p[0], p[1], p, length};
  pos_ += length;
  if (IsEndOfEntire(here.type, here.subtype)) {
    reachedEnd_ = true;
    end_ = here;
    return false;
  }
  node = here;
  return true;
}

bool IsKnownDevicePathNode(uint8_t type, uint8_t subtype) {
  for (const NodeKind& k : kKnownNodes)
    if (k.type == type && k.subtype == subtype) return true;
  return false;
}

bool ReadHardDriveNode(const DevicePathNode& node, HardDriveNode& out) {
  if (node.type != kMediaDevicePath || node.subtype != kHardDriveSubtype ||
      node.length < kHardDriveNodeLength)
    return false;
  const uint8_t* p = node.data;
  out.partitionNumber = Le32(p + 4);
  out.partitionStart = Le64(p + 8);
  out.partitionSize = Le64(p + 16);
  std::memcpy(out.signature, p + 24, 16);
  out.partitionFormat = p[40];
  out.signatureType = p[41];
  return true;
}

// BlockDevice

EfiLoader::FirmwareBlockIo* BlockIoHolder::Open() {
  io.reset();
  EfiLoader::FirmwareBlocks* blocks = Blocks();
  if (blocks == nullptr) {
    status = kUnsupported;
    return nullptr;
  }
  std::unique_ptr<EfiLoader::FirmwareBlockIo> opened;
  status = blocks->OpenBlockIo(handle, opened);
  if (status != 0 || !opened) {
    if (status == 0) status = kUnsupported;
    return nullptr;
  }
  io = std::move(opened);
  return io.get();
}

BlockDevice::BlockDevice(EfiLoader::EfiHandle handle, Common::Error& error) : holder_(handle) {
  geometry_ = Geometry{63, 15, 0};
  error = Common::Error();
  EfiLoader::FirmwareBlockIo* io = holder_.Open();
  if (io == nullptr) {
    error = EfiStatusError(ERROR_HERE, holder_.status);
    return;
  }
  const EfiLoader::BlockMedia media = io->Media();
  lastSector_ = media.LastBlock;
  sectorSize_ = media.BlockSize;
  geometry_.cylinders = (media.LastBlock / 16) / 63;
}

BlockDevice::~BlockDevice() {
  if (holder_.io) holder_.Close();
}

Common::Error BlockDevice::IoOp(uint32_t op, uint64_t sector, void* buffer,
                                uint64_t sectorCount) {
  if (!IsValidDiskOp(op)) return InvalidOperationError(ERROR_HERE);
  if (op != DiskRead && op != DiskWrite && op != DiskFlush) return Common::Error();
  EfiLoader::FirmwareBlockIo* io = holder_.io.get();
  // Only an object whose open failed has no interface; its creator never
  // hands it out, but it must not crash if asked all the same.
  if (io == nullptr) return EfiStatusError(ERROR_HERE, kNotReady);
  const EfiLoader::BlockMedia media = io->Media();
  uint64_t bytes = 0;
  if (!SectorBytes(sectorCount, media.BlockSize, bytes))
    return EfiStatusError(ERROR_HERE, kInvalidParameter);
  EfiStatus status = 0;
  switch (op) {
    case DiskRead: status = io->ReadBlocks(media.MediaId, sector, bytes, buffer); break;
    case DiskWrite: status = io->WriteBlocks(media.MediaId, sector, bytes, buffer); break;
    default: status = io->FlushBlocks(); break;
  }
  return EfiStatusError(ERROR_HERE, status);
}

// Enumeration

namespace {

struct PathList {
  std::vector<std::vector<uint8_t>> paths;
  std::vector<bool> nullPath;
  std::vector<EfiHandle> handles;
  uint64_t status = 0;
};

PathList CollectDevicePaths() {
  PathList list;
  EfiLoader::FirmwareBlocks* blocks = Blocks();
  if (blocks == nullptr) {
    list.status = kUnsupported;
    return list;
  }
  uint64_t bytes = 0;
  uint64_t status = blocks->LocateDevicePathHandles(bytes, nullptr);
  if (status != kBufferTooSmall) {
    list.status = status;
    return list;
  }
  // The firmware names the size; a size that is no whole number of handles
  // or beyond any real machine is refused rather than allocated.
  constexpr uint64_t kMaxHandles = 1 << 16;
  if (bytes == 0 || bytes % sizeof(EfiHandle) != 0 || bytes / sizeof(EfiHandle) > kMaxHandles) {
    list.status = kErrorBit | 4;  // bad buffer size
    return list;
  }
  std::vector<EfiHandle> handles(bytes / sizeof(EfiHandle));
  uint64_t capacity = bytes;
  status = blocks->LocateDevicePathHandles(capacity, handles.data());
  if (status != 0) {
    list.status = status;
    return list;
  }
  if (capacity < bytes) handles.resize(capacity / sizeof(EfiHandle));
  for (EfiHandle h : handles) {
    std::vector<uint8_t> path;
    if (blocks->DevicePath(h, path) != 0) continue;
    list.nullPath.push_back(path.empty());
    list.paths.push_back(std::move(path));
    list.handles.push_back(h);
  }
  return list;
}

// The kind of the last node before the end of the path; a path of the end
// node alone counts as ending in (its type, 255).
bool LastNode(const std::vector<uint8_t>& path, DevicePathNode& last) {
  DevicePathWalker walk(path);
  DevicePathNode node;
  bool any = false;
  while (walk.Next(node)) {
    last = node;
    any = true;
  }
  if (any) return true;
  if (walk.ReachedEnd()) {
    last = walk.EndNode();
    last.subtype = 255;
    return true;
  }
  return false;
}

bool OffersBlockIo(EfiHandle handle) {
  BlockIoHolder holder(handle);
  const bool ok = holder.Open() != nullptr;
  holder.Close();
  return ok;
}

}  // namespace

BlockDeviceList EnumerateBlockDevices(int mode) {
  BlockDeviceList result;
  PathList list = CollectDevicePaths();
  if (list.status != 0) {
    result.status = list.status;
    return result;
  }
  for (size_t i = 0; i < list.handles.size(); ++i) {
    if (list.nullPath[i]) continue;
    DevicePathNode last;
    if (!LastNode(list.paths[i], last)) continue;
    if (!IsKnownDevicePathNode(last.type, last.subtype)) continue;
    if (last.type == kMediaDevicePath && last.subtype == kHardDriveSubtype) {
      if (last.length < 8) continue;
      const uint32_t number = Le32(last.data + 4);
      const bool keep = (mode == kWholeDisks && number == 0) || (mode == kPartitions && number != 0);
      if (keep) result.handles.push_back(list.handles[i]);
      continue;
    }
    if (OffersBlockIo(list.handles[i])) result.handles.push_back(list.handles[i]);
  }
  return result;
}

}  // namespace Fdisk
