// The real firmware behind EfiLoader::FirmwareMemory: pages, the memory
// map, ExitBootServices, and the jump through the handover stub.
#include <cstring>

#include "efi/platform_memory.h"
#include "platform.h"

extern "C" const uint8_t LinuxHandoverStub[];  // handover.S

namespace EfiLoader {
namespace {

// Firmware with memory protection maps EfiLoaderData pages no-execute, and
// the stub runs from such pages while paging is still on.  Once the boot
// services are gone the page tables are ours: the no-execute bit comes off
// every entry on the way to the stub's pages.  Page tables that the
// firmware made read-only are written with CR0.WP cleared for the moment.
void MakeExecutable(uint64_t address, uint64_t size) {
  constexpr uint64_t kPresent = 1, kLarge = 0x80, kNoExecute = 1ull << 63;
  constexpr uint64_t kFrame = 0x000FFFFFFFFFF000ull;
  uint32_t low, high;
  __asm__ volatile("rdmsr" : "=a"(low), "=d"(high) : "c"(0xC0000080u));
  if (!(low & (1u << 11))) return;  // EFER.NXE off: nothing is no-execute
  uint64_t cr0, cr3, cr4;
  __asm__ volatile("mov %%cr0, %0" : "=r"(cr0));
  __asm__ volatile("mov %%cr3, %0" : "=r"(cr3));
  __asm__ volatile("mov %%cr4, %0" : "=r"(cr4));
  const int levels = (cr4 & (1u << 12)) ? 5 : 4;  // CR4.LA57
  __asm__ volatile("mov %0, %%cr0" : : "r"(cr0 & ~(1ull << 16)) : "memory");
  for (uint64_t page = address & ~0xFFFull; page < address + size; page += 4096) {
    uint64_t* table = reinterpret_cast<uint64_t*>(cr3 & kFrame);
    for (int level = levels; level >= 1; --level) {
      uint64_t& entry = table[(page >> (12 + 9 * (level - 1))) & 511];
      if (!(entry & kPresent)) break;
      entry &= ~kNoExecute;
      if (level == 1 || (level <= 3 && (entry & kLarge))) break;
      table = reinterpret_cast<uint64_t*>(entry & kFrame);
    }
  }
  __asm__ volatile("mov %0, %%cr3" : : "r"(cr3) : "memory");  // drops the old translations
  __asm__ volatile("mov %0, %%cr0" : : "r"(cr0) : "memory");
}

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
    __asm__ volatile("cli");
    MakeExecutable(stub, kHandoverStubSize);
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
