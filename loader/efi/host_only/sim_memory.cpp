#include "efi/host_only/sim_memory.h"

#include <cstring>

namespace EfiLoader::Sim {

SimMemory::SimMemory() {
  for (uint32_t i = 0; i < kHandoverStubSize; ++i) stub[i] = static_cast<uint8_t>(0xA0 ^ i);
}

bool SimMemory::BootServiceAfterExit() {
  if (!exited) return false;
  ++callsAfterExit;
  return true;
}

uint8_t* SimMemory::At(uint64_t address, uint64_t* left) {
  auto it = blocks_.upper_bound(address);
  if (it == blocks_.begin()) return nullptr;
  --it;
  const uint64_t offset = address - it->first;
  if (offset >= it->second.size()) return nullptr;
  if (left) *left = it->second.size() - offset;
  return it->second.data() + offset;
}

EfiStatus SimMemory::AllocatePages(uint64_t pages, uint64_t& address) {
  if (BootServiceAfterExit()) return Status::Unsupported;
  if (pages == 0 || pages > freePages || pages > (ramTop - ramBase) / kPageSize)
    return Status::OutOfResources;
  const uint64_t bytes = pages * kPageSize;
  // The highest free range whose last byte is at or below the limit.
  uint64_t end = address >= ramTop - 1 ? ramTop : ((address + 1) & ~(kPageSize - 1));
  for (auto it = blocks_.rbegin(); it != blocks_.rend(); ++it) {
    const uint64_t blockEnd = it->first + it->second.size();
    if (it->first >= end) continue;
    if (blockEnd <= end && end - blockEnd >= bytes) break;
    end = it->first;
  }
  if (end < ramBase + bytes) return Status::OutOfResources;
  const uint64_t start = end - bytes;
  blocks_[start].assign(bytes, 0xCC);  // not zero: the loader must clear what it relies on
  freePages -= pages;
  address = start;
  ++mapKey;
  for (uint32_t i = 0; i < descriptorsPerAllocation; ++i)
    map.push_back(SimDescriptor{2, start, 0, pages, kMemoryWriteBack});
  return Status::Success;
}

EfiStatus SimMemory::FreePages(uint64_t address, uint64_t pages) {
  // The unwinding after a simulated kernel start gives blocks back; on a
  // machine the kernel would own them.
  if (kernelStarted) return Status::Success;
  if (BootServiceAfterExit()) return Status::Unsupported;
  auto it = blocks_.find(address);
  if (it == blocks_.end() || it->second.size() != pages * kPageSize) return Status::NotFound;
  blocks_.erase(it);
  freePages += pages;
  ++mapKey;
  return Status::Success;
}

EfiStatus SimMemory::GetMemoryMap(uint64_t& mapSize, void* buffer, uint64_t& key,
                                  uint64_t& descSize, uint32_t& descVersion) {
  ++getMapCalls;
  mapOffers.push_back(mapSize);
  if (BootServiceAfterExit()) return Status::Unsupported;
  if (mapStatus != Status::Success) return mapStatus;
  descSize = descriptorSize;
  descVersion = descriptorVersion;
  const uint64_t need = map.size() * descriptorSize;
  if (mapAsksNoMore) return Status::BufferTooSmall;
  // An empty map fits any buffer, even none.
  if (mapSize < need || (!buffer && need != 0)) {
    mapSize = need;
    return Status::BufferTooSmall;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  if (need) std::memset(out, 0, need);
  for (size_t i = 0; need && i < map.size(); ++i) {
    EfiMemoryDescriptor d{map[i].type, 0, map[i].physicalStart, map[i].virtualStart, map[i].pages,
                          map[i].attribute};
    std::memcpy(out + i * descriptorSize, &d, descriptorSize < sizeof d ? descriptorSize : sizeof d);
  }
  mapSize = need;
  key = mapKey;
  return Status::Success;
}

EfiStatus SimMemory::ExitBootServices(uint64_t key) {
  ++exitCalls;
  if (BootServiceAfterExit()) return Status::InvalidParameter;
  if (key != mapKey) return Status::InvalidParameter;
  if (exitFailures > 0) {
    // Something of the firmware's own changed the map in the meantime.
    --exitFailures;
    ++mapKey;
    return Status::InvalidParameter;
  }
  exited = true;
  return Status::Success;
}

EfiStatus SimMemory::SetVirtualAddressMap(uint64_t mapSize, uint64_t descSize, uint32_t,
                                          void* buffer) {
  if (!exited) return Status::Unsupported;
  ++virtualMapCalls;
  virtualMapSize = mapSize;
  auto* p = static_cast<const uint8_t*>(buffer);
  if (mapSize)
    virtualMap.assign(p, p + mapSize);
  else
    virtualMap.clear();
  (void)descSize;
  return Status::Success;
}

void SimMemory::StartKernel(uint64_t stubAddress, uint64_t entry, uint64_t zeroPage) {
  kernelStarted = true;
  start = KernelStarted{stubAddress, entry, zeroPage};
  throw start;
}

}  // namespace EfiLoader::Sim
