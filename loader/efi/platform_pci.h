// The PCI face of the firmware: the root bridges and their configuration
// reads.
#pragma once

#include <cstdint>

#include "efi/platform.h"

namespace EfiLoader {

// EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH values the loader uses.
inline constexpr uint32_t kPciWidthUint16 = 1;
inline constexpr uint32_t kPciWidthUint32 = 2;

// One EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL.
class FirmwarePciRootBridge {
 public:
  virtual ~FirmwarePciRootBridge() = default;
  // Configuration: the bridge's ACPI resource descriptors, a list in the
  // firmware's memory that ends with an end tag (0x79).
  virtual EfiStatus Configuration(const uint8_t*& descriptors) = 0;
  // Pci.Read: `count` items of `width` from the configuration space at
  // `address` (bus << 24 | device << 16 | function << 8 | register).
  virtual EfiStatus PciRead(uint32_t width, uint64_t address, uint64_t count, void* buffer) = 0;
};

class FirmwarePci {
 public:
  virtual ~FirmwarePci() = default;
  // LocateHandle(ByProtocol, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL).  `bytes` in:
  // the capacity of `handles` in bytes; out: what was written or is needed.
  virtual EfiStatus LocateRootBridges(uint64_t& bytes, EfiHandle* handles) = 0;
  // HandleProtocol; `bridge` is null when the firmware gave null.  The
  // protocol lives for the run.
  virtual EfiStatus RootBridge(EfiHandle handle, FirmwarePciRootBridge*& bridge) = 0;
};

}  // namespace EfiLoader
