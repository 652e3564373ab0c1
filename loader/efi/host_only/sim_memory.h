// Simulated memory for host tests: page blocks that are plain host buffers
// at simulated physical addresses (so the sanitizers see every write past
// a block), a memory map the test writes, ExitBootServices that can be
// made to fail, and a kernel start that is recorded and thrown.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "efi/platform_memory.h"

namespace EfiLoader::Sim {

struct SimDescriptor {
  uint32_t type = 7;
  uint64_t physicalStart = 0;
  uint64_t virtualStart = 0;
  uint64_t pages = 0;
  uint64_t attribute = kMemoryWriteBack;
};

// Thrown by StartKernel: the simulated machine "runs" the kernel by
// unwinding back to the test.  Not a Common::Error, so no handler of the
// loader takes it.
struct KernelStarted {
  uint64_t stub;
  uint64_t entry;
  uint64_t zeroPage;
};

class SimMemory final : public FirmwareMemory {
 public:
  SimMemory();

  // ---- the machine
  uint64_t ramBase = 0x100000;          // blocks come from [ramBase, ramTop), top-down
  uint64_t ramTop = 0x100000000ull;
  uint64_t freePages = ~0ull;           // pages left before AllocatePages fails
  std::vector<SimDescriptor> map;       // what GetMemoryMap reports
  uint64_t descriptorSize = 48;
  uint32_t descriptorVersion = 1;
  uint32_t descriptorsPerAllocation = 0;  // each allocation splits this many more
  EfiStatus mapStatus = Status::Success;  // a failure GetMemoryMap answers with
  bool mapAsksNoMore = false;           // answers "too small" without a larger size
  int exitFailures = 0;                 // ExitBootServices calls that fail first
  uint64_t systemTable = 0x7F9E0018;
  uint8_t stub[kHandoverStubSize];      // the stub's bytes, a recognisable pattern

  // ---- what the run did
  uint64_t mapKey = 1;
  int getMapCalls = 0;
  std::vector<uint64_t> mapOffers;      // the size offered by each GetMemoryMap call
  int exitCalls = 0;
  bool exited = false;
  int callsAfterExit = 0;               // boot services used after a successful exit
  int virtualMapCalls = 0;
  uint64_t virtualMapSize = 0;
  std::vector<uint8_t> virtualMap;      // the map given to SetVirtualAddressMap
  bool kernelStarted = false;
  KernelStarted start{};

  // The blocks now held; a block's bytes by its address.
  const std::map<uint64_t, std::vector<uint8_t>>& Blocks() const { return blocks_; }
  size_t LiveBlocks() const { return blocks_.size(); }
  // The bytes from `address` to the end of its block, or null.
  uint8_t* At(uint64_t address, uint64_t* left = nullptr);

  // ---- FirmwareMemory
  EfiStatus AllocatePages(uint64_t pages, uint64_t& address) override;
  EfiStatus FreePages(uint64_t address, uint64_t pages) override;
  uint8_t* Pointer(uint64_t address) override { return At(address); }
  EfiStatus GetMemoryMap(uint64_t& mapSize, void* buffer, uint64_t& key, uint64_t& descSize,
                         uint32_t& descVersion) override;
  EfiStatus ExitBootServices(uint64_t key) override;
  EfiStatus SetVirtualAddressMap(uint64_t mapSize, uint64_t descSize, uint32_t descVersion,
                                 void* buffer) override;
  uint64_t SystemTableAddress() override { return systemTable; }
  const uint8_t* HandoverStub() override { return stub; }
  void StartKernel(uint64_t stubAddress, uint64_t entry, uint64_t zeroPage) override;

 private:
  bool BootServiceAfterExit();
  std::map<uint64_t, std::vector<uint8_t>> blocks_;
};

}  // namespace EfiLoader::Sim
