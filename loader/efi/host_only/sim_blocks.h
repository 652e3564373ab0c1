// Simulated block devices for host tests: handles with device paths, and
// Block I/O over image files, presented the way a firmware presents disks
// (one handle for a whole disk, one below it for each partition of its
// table).  Tests install one with `SimFirmware::blocks`.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/text.h"
#include "efi/platform_blocks.h"
#include "file/file.h"

namespace EfiLoader::Sim {

struct SimBlockDevice {
  bool listed = true;                  // LocateHandle reports the handle
  EfiStatus devicePathStatus = Status::Success;  // what HandleProtocol answers
  std::vector<uint8_t> devicePath;     // empty: a null path
  EfiStatus openStatus = Status::Success;  // what OpenProtocol(Block I/O) answers
  int opensBeforeFailure = -1;         // >= 0: that many opens succeed, then openStatus
  BlockMedia media;
  std::shared_ptr<ri_file> image;      // the bytes behind block 0 start at imageOffset
  uint64_t imageOffset = 0;
  EfiStatus readStatus = Status::Success;  // injected failure of ReadBlocks

  // What the loader did with it.
  int openNow = 0;    // protocols open at present
  int opensTotal = 0;
  int reads = 0;
};

class SimBlocks final : public FirmwareBlocks {
 public:
  // Devices in firmware order; a handle is the device's address.
  std::vector<std::unique_ptr<SimBlockDevice>> devices;
  EfiStatus locateStatus = Status::Success;  // non-zero: LocateHandle answers this
  UnicodeCollation* collation = nullptr;

  SimBlockDevice& Add(const std::vector<uint8_t>& devicePath);
  // A disk image as a firmware presents it: a whole-disk handle whose path
  // ends in a SATA node on port `port`, and a partition handle below it for
  // each partition of its GPT or MBR.  The image is read, never written.
  Common::Error AddDiskImage(const std::string& path, uint16_t port = 0, uint32_t blockSize = 512);

  // Device-path helpers: nodes and a whole path (end node appended).
  static std::vector<uint8_t> Node(uint8_t type, uint8_t subtype,
                                   const std::vector<uint8_t>& payload = {});
  static std::vector<uint8_t> PciNode(uint8_t device, uint8_t function);
  static std::vector<uint8_t> SataNode(uint16_t port);
  static std::vector<uint8_t> HardDriveNode(uint32_t number, uint64_t start, uint64_t size,
                                            const uint8_t signature[16], uint8_t signatureType);
  static std::vector<uint8_t> PathOf(const std::vector<std::vector<uint8_t>>& nodes);

  // FirmwareBlocks
  EfiStatus LocateDevicePathHandles(uint64_t& bytes, EfiHandle* handles) override;
  EfiStatus DevicePath(EfiHandle handle, std::vector<uint8_t>& path) override;
  EfiStatus OpenBlockIo(EfiHandle handle, std::unique_ptr<FirmwareBlockIo>& io) override;
  UnicodeCollation* Collation() override { return collation; }

 private:
  SimBlockDevice* Find(EfiHandle handle);
};

}  // namespace EfiLoader::Sim
