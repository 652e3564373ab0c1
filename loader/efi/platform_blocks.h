// The block-device face of the firmware: the handles that carry a device
// path, their paths as bytes, and the Block I/O protocol of one handle.
//
// As everywhere on the platform layer, the face forwards and translates;
// which handles count as disks or partitions, and what a path means, is
// decided by the disk layer above (core/fdisk).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "efi/platform.h"

class UnicodeCollation;

namespace EfiLoader {

// The media record of a Block I/O protocol, as the firmware keeps it now.
struct BlockMedia {
  uint32_t MediaId = 0;
  bool RemovableMedia = false;
  bool MediaPresent = false;
  bool LogicalPartition = false;
  bool ReadOnly = false;
  uint32_t BlockSize = 0;
  uint64_t LastBlock = 0;
};

// One open Block I/O protocol.  Destroying the object closes the protocol
// (CloseProtocol with the loader's image as agent).
class FirmwareBlockIo {
 public:
  virtual ~FirmwareBlockIo() = default;
  // Read anew on every call: the firmware changes it when media change.
  virtual BlockMedia Media() = 0;
  virtual EfiStatus ReadBlocks(uint32_t mediaId, uint64_t lba, uint64_t bytes, void* buffer) = 0;
  virtual EfiStatus WriteBlocks(uint32_t mediaId, uint64_t lba, uint64_t bytes,
                                const void* buffer) = 0;
  virtual EfiStatus FlushBlocks() = 0;
};

class FirmwareBlocks {
 public:
  virtual ~FirmwareBlocks() = default;
  // LocateHandle(ByProtocol, EFI_DEVICE_PATH_PROTOCOL).  `bytes` in: the
  // capacity of `handles` in bytes; out: what the firmware wrote or needs.
  virtual EfiStatus LocateDevicePathHandles(uint64_t& bytes, EfiHandle* handles) = 0;
  // HandleProtocol(EFI_DEVICE_PATH_PROTOCOL): the path's bytes up to and
  // including its end node, as far as the node lengths can be followed.
  // Success with no bytes stands for a null path.
  virtual EfiStatus DevicePath(EfiHandle handle, std::vector<uint8_t>& path) = 0;
  // OpenProtocol(EFI_BLOCK_IO_PROTOCOL, BY_HANDLE_PROTOCOL) with the
  // loader's image as agent and no controller.
  virtual EfiStatus OpenBlockIo(EfiHandle handle, std::unique_ptr<FirmwareBlockIo>& io) = 0;
  // EFI_UNICODE_COLLATION_PROTOCOL, looked up once and remembered, absent
  // or not; null when the firmware has none.
  virtual UnicodeCollation* Collation() { return nullptr; }
};

// The real firmware's face; only the firmware image defines it.
FirmwareBlocks* RealBlocks();

}  // namespace EfiLoader
