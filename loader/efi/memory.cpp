#include "efi/memory.h"

#include <cstring>
#include <utility>

#include "common/error_codes.h"
#include "efi/boot_params.h"
#include "efi/platform_memory.h"

namespace EfiLoader {

using namespace Common::Codes;
namespace BP = BootParams;

namespace {

FirmwareMemory& Memory() {
  FirmwareMemory* memory = Fw().Memory();
  if (!memory) THROW_ERROR(NotEnoughMemory);
  return *memory;
}

// A firmware that asks for a larger map after every allocation would keep
// the loop below going for as long as memory lasts; this many rounds is
// far more than any real one needs.
constexpr int kMaxMapRounds = 32;

// The E820 table of the zero page and, behind it, the entries of the
// overflow record.  Writes nothing and allocates nothing but what it is
// given: it runs between GetMemoryMap and ExitBootServices.
class E820Writer {
 public:
  E820Writer(uint8_t* zeroPage, uint8_t* overflow, uint64_t overflowCapacity)
      : zeroPage_(zeroPage), overflow_(overflow), overflowCapacity_(overflowCapacity) {}

  // Adds a range, merged into the previous entry when it continues it with
  // the same type.  `count` is the number of entries so far, kept wider
  // than the zero page's byte.
  void Add(uint64_t& count, uint64_t address, uint64_t size, uint32_t type) {
    if (count > 0) {
      uint8_t* previous = Entry(count - 1);
      const uint64_t prevAddress = BP::Get64(previous);
      const uint64_t prevSize = BP::Get64(previous + 8);
      if (BP::Get32(previous + 16) == type && prevAddress + prevSize == address) {
        BP::Put64(previous + 8, prevSize + size);
        return;
      }
    }
    uint8_t* entry = Entry(count);
    BP::Put64(entry, address);
    BP::Put64(entry + 8, size);
    BP::Put32(entry + 16, type);
    ++count;
  }

 private:
  uint8_t* Entry(uint64_t index) {
    if (index < BP::kE820TableEntries) return zeroPage_ + BP::kE820Table + index * BP::kE820EntrySize;
    const uint64_t offset = BP::kSetupDataHeaderSize + (index - BP::kE820TableEntries) * BP::kE820EntrySize;
    // The overflow record was sized for every descriptor of this map; an
    // entry beyond it would mean the sizing is wrong, and nothing may be
    // written outside the block.
    if (!overflow_ || offset + BP::kE820EntrySize > overflowCapacity_) THROW_ERROR(EfiRuntimeError);
    return overflow_ + offset;
  }

  uint8_t* zeroPage_;
  uint8_t* overflow_;
  uint64_t overflowCapacity_;
};

// A new, larger block in place of `block`, holding what the old one held.
void Grow(PageAlignedMemory& block, uint64_t size) {
  PageAlignedMemory bigger(size, kFileMemoryLimit);
  if (!block.Empty()) std::memcpy(bigger.Data(), block.Data(), block.Capacity());
  block.Swap(bigger);
}

// Runtime regions only, each mapped one to one, then those above the room
// under 4 GiB packed downward from there.
void InstallVirtualMap(FirmwareMemory& memory, uint8_t* map, uint64_t& mapSize,
                       uint64_t descriptorSize, uint32_t descriptorVersion) {
  const uint64_t entries = mapSize / descriptorSize;
  uint64_t kept = 0;
  for (uint64_t i = 0; i < entries; ++i) {
    EfiMemoryDescriptor d;
    std::memcpy(&d, map + i * descriptorSize, sizeof d);
    if (!(d.Attribute & kMemoryRuntime)) continue;
    d.VirtualStart = d.PhysicalStart;
    if (kept != i) std::memmove(map + kept * descriptorSize, map + i * descriptorSize, descriptorSize);
    std::memcpy(map + kept * descriptorSize, &d, sizeof d);
    ++kept;
  }
  mapSize = kept * descriptorSize;

  uint64_t top = 0x100000000ull;
  for (uint64_t i = kept; i-- > 0;) {
    EfiMemoryDescriptor d;
    std::memcpy(&d, map + i * descriptorSize, sizeof d);
    const uint64_t low = d.PhysicalStart & 0xFFF;
    const uint64_t pages = d.NumberOfPages + (low ? 1 : 0);
    // A region larger than what is left below `top` cannot be packed.
    if (pages < d.NumberOfPages || pages > top / kPageSize) break;
    top -= pages * kPageSize;
    const uint64_t candidate = top | low;
    if (d.VirtualStart <= candidate) break;
    d.VirtualStart = candidate;
    std::memcpy(map + i * descriptorSize, &d, sizeof d);
  }
  memory.SetVirtualAddressMap(mapSize, descriptorSize, descriptorVersion, map);
}

}  // namespace

// ---------------------------------------------------------------- pages

PageAlignedMemory::PageAlignedMemory(uint64_t size, uint64_t limit) {
  const uint64_t pages = size > UINT64_MAX - 4095 ? UINT64_MAX : (size + 4095) >> 12;
  if (pages > 0xFFFFFFFFull) THROW_ERROR(NotEnoughMemory);
  uint64_t address = limit;
  if (EfiFailed(Memory().AllocatePages(pages, address))) THROW_ERROR(NotEnoughMemory);
  address_ = address;
  pages_ = static_cast<uint32_t>(pages);
  size_ = size;
}

void PageAlignedMemory::Swap(PageAlignedMemory& other) noexcept {
  std::swap(address_, other.address_);
  std::swap(pages_, other.pages_);
  std::swap(size_, other.size_);
}

void PageAlignedMemory::Release() noexcept {
  if (address_) {
    if (FirmwareMemory* memory = Fw().Memory()) memory->FreePages(address_, pages_);
  }
  address_ = 0, pages_ = 0, size_ = 0;
}

uint8_t* PageAlignedMemory::Data() const {
  if (!address_) return nullptr;
  return Memory().Pointer(address_);
}

// ---------------------------------------------------------------- E820

uint32_t E820TypeOf(uint32_t efiType, uint64_t attribute) {
  switch (efiType) {
    case 1:  // EfiLoaderCode
    case 2:  // EfiLoaderData
    case 3:  // EfiBootServicesCode
    case 4:  // EfiBootServicesData
    case 7:  // EfiConventionalMemory
      return (attribute & kMemoryWriteBack) ? 1 : 2;
    case 8: return 5;   // EfiUnusableMemory
    case 9: return 3;   // EfiACPIReclaimMemory
    case 10: return 4;  // EfiACPIMemoryNVS
    default: return 2;
  }
}

void ExitEFI(uint8_t* zeroPage, bool ownKernel) {
  FirmwareMemory& memory = Memory();
  PageAlignedMemory map, overflow;
  uint64_t count = zeroPage[BP::kE820Entries];
  int failures = 0;
  uint64_t mapSize = 0, mapKey = 0, descriptorSize = 0;
  uint32_t descriptorVersion = 0;

  for (int round = 0;; ++round) {
    if (round >= kMaxMapRounds) THROW_ERROR(EfiRuntimeError);
    const uint64_t offered = map.Capacity();
    mapSize = offered;
    const EfiStatus status =
        memory.GetMemoryMap(mapSize, map.Data(), mapKey, descriptorSize, descriptorVersion);
    if (status == Status::BufferTooSmall) {
      if (mapSize <= offered) THROW_ERROR(EfiRuntimeError);
      PageAlignedMemory bigger(mapSize, kFileMemoryLimit);
      map.Swap(bigger);
      continue;
    }
    if (EfiFailed(status)) THROW_ERROR(NotEnoughMemory);
    // A descriptor smaller than the record, or a map larger than the
    // buffer, cannot be walked without reading past it.
    if (descriptorSize < sizeof(EfiMemoryDescriptor) || mapSize > offered)
      THROW_ERROR(EfiRuntimeError);

    const uint64_t entries = mapSize / descriptorSize;
    uint8_t* overflowData = nullptr;
    if (count + entries > BP::kE820TableEntries) {
      const uint64_t need =
          (count + entries - BP::kE820TableEntries) * BP::kE820EntrySize + BP::kSetupDataHeaderSize;
      if (need > overflow.Capacity()) {
        // The allocation changed the map: read it again.
        Grow(overflow, need);
        continue;
      }
      overflowData = overflow.Data();
      BP::Put64(overflowData, 0);
      BP::Put32(overflowData + 8, BP::kSetupE820Ext);
      BP::Put32(overflowData + 12, 0);
    } else if (!overflow.Empty()) {
      overflowData = overflow.Data();
    }

    E820Writer writer(zeroPage, overflowData, overflow.Capacity());
    const uint8_t* descriptors = map.Data();
    for (uint64_t i = 0; i < entries; ++i) {
      EfiMemoryDescriptor d;
      std::memcpy(&d, descriptors + i * descriptorSize, sizeof d);
      // Pages beyond what 64 bits of bytes can say are cut at the top.
      const uint64_t size = d.NumberOfPages > (UINT64_MAX >> 12) ? (UINT64_MAX & ~0xFFFull)
                                                                 : d.NumberOfPages << 12;
      writer.Add(count, d.PhysicalStart, size, E820TypeOf(d.Type, d.Attribute));
    }

    if (!EfiFailed(memory.ExitBootServices(mapKey))) break;
    if (++failures > 2) THROW_ERROR(EfiRuntimeError);
  }

  // Only the runtime services from here on; nothing below can fail.
  uint8_t* mapData = map.Data();
  if (ownKernel) InstallVirtualMap(memory, mapData, mapSize, descriptorSize, descriptorVersion);

  BP::Put32(zeroPage + BP::kEfiMemdescSize, static_cast<uint32_t>(descriptorSize));
  BP::Put32(zeroPage + BP::kEfiMemdescVersion, descriptorVersion);
  BP::Put32(zeroPage + BP::kEfiMemmapSize, static_cast<uint32_t>(mapSize));
  BP::Put32(zeroPage + BP::kEfiMemmap, static_cast<uint32_t>(map.Address()));
  BP::Put32(zeroPage + BP::kEfiMemmapHi, static_cast<uint32_t>(map.Address() >> 32));

  if (count > BP::kE820TableEntries) {
    uint8_t* record = overflow.Data();
    BP::Put32(record + 12,
              static_cast<uint32_t>((count - BP::kE820TableEntries) * BP::kE820EntrySize));
    zeroPage[BP::kE820Entries] = BP::kE820TableEntries;
    BP::Put64(zeroPage + BP::kSetupData, overflow.Address());
  } else {
    zeroPage[BP::kE820Entries] = static_cast<uint8_t>(count);
  }
  // The map and the record stay where they are for the kernel.
  map.Disown();
  overflow.Disown();
}

}  // namespace EfiLoader
