// The memory face of the firmware: pages, the memory map, leaving boot
// services, and the last step of a Linux boot, the jump through the
// handover stub.
//
// Addresses are the firmware's physical addresses.  The loader reaches the
// bytes of a block through `Pointer`: on the real firmware memory is
// identity-mapped, a simulated one keeps its own blocks.
#pragma once

#include <cstdint>

#include "efi/platform.h"

namespace EfiLoader {

// EFI_MEMORY_DESCRIPTOR as the firmware lays it out.  The firmware's
// descriptor size may be larger than this record; the map is walked with
// the size it gives.
struct EfiMemoryDescriptor {
  uint32_t Type;
  uint32_t Pad;
  uint64_t PhysicalStart;
  uint64_t VirtualStart;
  uint64_t NumberOfPages;
  uint64_t Attribute;
};
static_assert(sizeof(EfiMemoryDescriptor) == 40);

inline constexpr uint64_t kMemoryWriteBack = 0x8;           // EFI_MEMORY_WB
inline constexpr uint64_t kMemoryRuntime = 1ull << 63;      // EFI_MEMORY_RUNTIME
inline constexpr uint64_t kPageSize = 4096;

// The handover stub is this long; the face supplies its bytes.
inline constexpr uint32_t kHandoverStubSize = 200;

class FirmwareMemory {
 public:
  virtual ~FirmwareMemory() = default;

  // AllocatePages(AllocateMaxAddress, EfiLoaderData).  `address` in: the
  // highest address the block may touch; out: the start of the block.
  virtual EfiStatus AllocatePages(uint64_t pages, uint64_t& address) = 0;
  virtual EfiStatus FreePages(uint64_t address, uint64_t pages) = 0;
  // Where the loader reaches the byte at `address` of a block it holds.
  virtual uint8_t* Pointer(uint64_t address) = 0;

  // GetMemoryMap.  `mapSize` in: the bytes at `map` (0 with no buffer);
  // out: what the firmware wrote or, on EFI_BUFFER_TOO_SMALL, needs.
  virtual EfiStatus GetMemoryMap(uint64_t& mapSize, void* map, uint64_t& mapKey,
                                 uint64_t& descriptorSize, uint32_t& descriptorVersion) = 0;
  // ExitBootServices for the loader's image.  On success the face has
  // already told the runtime that boot services are gone.
  virtual EfiStatus ExitBootServices(uint64_t mapKey) = 0;
  // The runtime service; only after ExitBootServices.
  virtual EfiStatus SetVirtualAddressMap(uint64_t mapSize, uint64_t descriptorSize,
                                         uint32_t descriptorVersion, void* map) = 0;
  // The address of the EFI system table, for the kernel.
  virtual uint64_t SystemTableAddress() = 0;

  // The stub's kHandoverStubSize bytes of position-independent code.
  virtual const uint8_t* HandoverStub() = 0;
  // Calls the stub copied to `stub` with the kernel's entry and the zero
  // page.  Never comes back on a real machine.
  virtual void StartKernel(uint64_t stub, uint64_t entry, uint64_t zeroPage) = 0;
};

}  // namespace EfiLoader
