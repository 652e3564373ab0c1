// The firmware's block devices as sector devices: Fdisk::BlockDevice over
// one Block I/O protocol, the ordered list of block-device handles, the
// mapping of firmware status values into disk errors, and the walk over a
// device path.  Everything here talks to the firmware through
// EfiLoader::FirmwareBlocks only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/error.h"
#include "efi/platform_blocks.h"
#include "fdisk/ver2/simpdisk.h"

namespace Fdisk {

// The disk error of a firmware status: codes 0x10D001 to 0x10D01D.
// Success gives success.
Common::Error EfiStatus2FdiskError(uint64_t status);
// The same, recorded under the caller's location and function name.
Common::Error EfiStatusError(const Common::ErrorLocation& where, uint64_t status);

// A Block I/O protocol held open on one handle.  The status of the last
// open is kept; the interface is there only if the open succeeded.
struct BlockIoHolder {
  explicit BlockIoHolder(EfiLoader::EfiHandle h) : handle(h) {}
  // Opens the protocol; null when it failed (the status says why).
  EfiLoader::FirmwareBlockIo* Open();
  void Close() { io.reset(); }

  EfiLoader::EfiHandle handle;
  uint64_t status = 0;
  std::unique_ptr<EfiLoader::FirmwareBlockIo> io;
};

class BlockDevice final : public SimpleDisk {
 public:
  // A firmware failure does not throw: it is stored in `error`, and the
  // object stays without an interface; its creator deletes it unused.
  BlockDevice(EfiLoader::EfiHandle handle, Common::Error& error);
  ~BlockDevice() override;

  Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t sectorCount) override;

 private:
  BlockIoHolder holder_;
};

enum EnumerationMode : int {
  kWholeDisks = 0,
  kPartitions = 1,
};

struct BlockDeviceList {
  std::vector<EfiLoader::EfiHandle> handles;
  uint64_t status = 0;
};

// The block-device handles in the firmware's order (which is not stable
// from boot to boot: callers never keep a position across calls).
BlockDeviceList EnumerateBlockDevices(int mode);

// One node of a device path, as found in the bytes.
struct DevicePathNode {
  uint8_t type;
  uint8_t subtype;
  const uint8_t* data;  // the whole node, header included
  size_t length;
};

// Walks the nodes of a device path up to its end-of-entire node, which is
// not visited.  A node whose length is below 4 or runs past the bytes ends
// the walk: a broken path is as long as what could be read of it.
class DevicePathWalker {
 public:
  DevicePathWalker(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}
  explicit DevicePathWalker(const std::vector<uint8_t>& path)
      : DevicePathWalker(path.data(), path.size()) {}
  // The next node; false at the end.
  bool Next(DevicePathNode& node);
  // True when the walk stopped on an end-of-entire node.
  bool ReachedEnd() const { return reachedEnd_; }
  // The end-of-entire node itself, when the walk reached it.
  const DevicePathNode& EndNode() const { return end_; }

 private:
  const uint8_t* bytes_;
  size_t size_;
  size_t pos_ = 0;
  bool reachedEnd_ = false;
  DevicePathNode end_{};
};

// True when (type, subtype) is a node kind the loader knows a device by.
bool IsKnownDevicePathNode(uint8_t type, uint8_t subtype);

// The hard-drive media node: its fields, read only when the node is long
// enough to hold them.
struct HardDriveNode {
  uint32_t partitionNumber;
  uint64_t partitionStart;
  uint64_t partitionSize;
  uint8_t signature[16];
  uint8_t partitionFormat;
  uint8_t signatureType;
};
inline constexpr uint8_t kMediaDevicePath = 4;
inline constexpr uint8_t kHardDriveSubtype = 1;
inline constexpr uint8_t kGuidSignature = 2;
inline constexpr size_t kHardDriveNodeLength = 42;
// False when `node` is no hard-drive node or too short to be one.
bool ReadHardDriveNode(const DevicePathNode& node, HardDriveNode& out);

}  // namespace Fdisk
