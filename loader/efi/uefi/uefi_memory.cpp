// The real firmware behind EfiLoader::FirmwareMemory: pages, the memory
// map, ExitBootServices, and the jump through the handover stub.
#include <cstring>

#include "efi/platform_memory.h"
#include "platform.h"

extern "C" const uint8_t LinuxHandoverStub[];  // handover.S

namespace EfiLoader {
namespace {

class UefiMemory final : public FirmwareMemory {
 public:
  EfiStatus AllocatePages(uint64_t pages, uint64_t& address) override {
    if (!Uefi::BootServicesAvailable()) return EFI_UNSUPPORTED;
    EFI_PHYSICAL_ADDRESS a = address;
    EFI_STATUS s = Uefi::BootServices()->AllocatePages(AllocateMaxAddress, EfiLoaderData, pages, &a);
    address = a;
    return s;
  }
  EfiStatus FreePages(uint64_t address, uint64_t pages) override {
    if (!Uefi::BootServicesAvailable()) return EFI_UNSUPPORTED;
    return Uefi::BootServices()->FreePages(address, pages);
  }
  // The firmware maps memory one to one.
  uint8_t* Pointer(uint64_t address) override { return reinterpret_cast<uint8_t*>(address); }

  EfiStatus GetMemoryMap(uint64_t& mapSize, void* map, uint64_t& mapKey, uint64_t& descriptorSize,
                         uint32_t& descriptorVersion) override {
    UINTN size = mapSize, key = 0, dsize = 0;
    UINT32 version = 0;
    EFI_STATUS s = Uefi::BootServices()->GetMemoryMap(
        &size, static_cast<EFI_MEMORY_DESCRIPTOR*>(map), &key, &dsize, &version);
    mapSize = size;
    mapKey = key;
    descriptorSize = dsize;
    descriptorVersion = version;
    return s;
  }
  EfiStatus ExitBootServices(uint64_t mapKey) override {
    EFI_STATUS s = Uefi::BootServices()->ExitBootServices(Uefi::ImageHandle(), mapKey);
    if (!EFI_ERROR(s)) Uefi::NoteBootServicesExited();
    return s;
  }
  EfiStatus SetVirtualAddressMap(uint64_t mapSize, uint64_t descriptorSize,
                                 uint32_t descriptorVersion, void* map) override {
    return Uefi::RuntimeServices()->SetVirtualAddressMap(
        mapSize, descriptorSize, descriptorVersion, static_cast<EFI_MEMORY_DESCRIPTOR*>(map));
  }
  uint64_t SystemTableAddress() override {
    return reinterpret_cast<uint64_t>(Uefi::SystemTable());
  }
  const uint8_t* HandoverStub() override { return LinuxHandoverStub; }
  void StartKernel(uint64_t stub, uint64_t entry, uint64_t zeroPage) override {
    using Stub = void (*)(uint64_t entry, uint64_t zeroPage, uint64_t self);
    reinterpret_cast<Stub>(stub)(entry, zeroPage, stub);
    for (;;) __asm__ volatile("cli; hlt");
  }
};

}  // namespace

FirmwareMemory* RealMemory() {
  static UefiMemory memory;
  return &memory;
}

}  // namespace EfiLoader
