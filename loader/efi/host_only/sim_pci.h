// Simulated PCI root bridges for host tests: resource descriptors as the
// test writes them and configuration headers by address.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "efi/platform_pci.h"

namespace EfiLoader::Sim {

class SimRootBridge final : public FirmwarePciRootBridge {
 public:
  EfiStatus configurationStatus = Status::Success;
  bool nullList = false;
  std::vector<uint8_t> descriptors;         // as given; padded with zeros when handed out
  std::map<uint64_t, std::array<uint8_t, 64>> functions;  // by bus << 24 | dev << 16 | fn << 8
  std::set<uint64_t> readFails;
  uint64_t reads = 0;
  std::set<uint32_t> busesRead;

  // A function with vendor `vendor`, base class `baseClass` and the six BARs.
  void AddFunction(uint32_t bus, uint32_t device, uint32_t function, uint16_t vendor,
                   uint8_t baseClass, bool multiFunction, const std::array<uint32_t, 6>& bars);
  // A QWORD descriptor of bus numbers [lowest, highest].
  static std::vector<uint8_t> BusRange(uint32_t lowest, uint32_t highest);
  static std::vector<uint8_t> EndTag() { return {0x79, 0x00}; }

  EfiStatus Configuration(const uint8_t*& list) override;
  EfiStatus PciRead(uint32_t width, uint64_t address, uint64_t count, void* buffer) override;

 private:
  std::vector<uint8_t> handedOut_;
};

class SimPci final : public FirmwarePci {
 public:
  std::vector<std::unique_ptr<SimRootBridge>> bridges;
  EfiStatus locateStatus = Status::Success;  // non-zero: LocateHandle answers this
  bool noBridgesIsSuccess = false;           // no bridges: success rather than "not found"
  bool handleProtocolFails = false;
  int locateCalls = 0;

  SimRootBridge& Add();
  EfiStatus LocateRootBridges(uint64_t& bytes, EfiHandle* handles) override;
  EfiStatus RootBridge(EfiHandle handle, FirmwarePciRootBridge*& bridge) override;
};

}  // namespace EfiLoader::Sim
