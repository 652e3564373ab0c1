// The snapshot of PCI configuration headers behind the root bridges.
#include <gtest/gtest.h>

#include "efi/pci.h"
#include "linux_fixture.h"
#include "test_util.h"

using namespace EfiLoader;
using linux_test::LinuxTest;
using Sim::SimRootBridge;
using test_util::ThrownCode;

namespace {

uint64_t Key(uint32_t bus, uint32_t device, uint32_t function) {
  return uint64_t{bus} << 24 | device << 16 | function << 8;
}

std::vector<uint8_t> List(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

class PciTest : public LinuxTest {
 protected:
  uint32_t ScanCode(PciConfiguration& map) {
    return ThrownCode([&] { GetPciConfiguration(map); });
  }
};

TEST_F(PciTest, FunctionsOfTheListedBusRanges) {
  SimRootBridge& bridge = pci.Add();
  // A memory window and an I/O range (small descriptor) around two bus
  // ranges, one of them upside down.
  std::vector<uint8_t> memoryWindow = SimRootBridge::BusRange(0x80000000u, 0x8FFFFFFFu);
  memoryWindow[3] = 0;  // resource type memory
  bridge.descriptors = List({memoryWindow, {0x47, 1, 0, 0, 0, 0, 0, 0}, SimRootBridge::BusRange(0, 1),
                             SimRootBridge::BusRange(9, 3), SimRootBridge::EndTag()});
  bridge.AddFunction(0, 0, 0, 0x8086, 0x06, false, {});
  bridge.AddFunction(0, 2, 0, 0x1234, 0x03, false, {0xC0000008, 0, 0, 0, 0, 0});
  bridge.AddFunction(0, 2, 1, 0x1234, 0x03, false, {});  // single-function: never read
  bridge.AddFunction(1, 5, 0, 0x1AF4, 0x01, true, {});
  bridge.AddFunction(1, 5, 2, 0x1AF4, 0x01, true, {});   // function 1 answers 0xFFFF
  bridge.AddFunction(4, 0, 0, 0x1AF4, 0x01, false, {});  // outside the ranges

  PciConfiguration map;
  map[0x123] = {};  // cleared first
  ASSERT_EQ(ScanCode(map), 0u);
  std::vector<uint64_t> keys;
  for (const auto& [key, header] : map) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<uint64_t>{Key(0, 0, 0), Key(0, 2, 0), Key(1, 5, 0), Key(1, 5, 2)}));
  EXPECT_EQ(map[Key(0, 2, 0)][0x0B], 0x03);
  EXPECT_EQ(map[Key(0, 2, 0)][0x10], 0x08);
  EXPECT_EQ(map[Key(0, 2, 0)][0x13], 0xC0);
  EXPECT_EQ(bridge.busesRead, (std::set<uint32_t>{0, 1}));
  // One read per empty device, two per function that answers; all eight
  // functions of the multi-function device are asked.
  const uint64_t bus0 = 2 + 2 + 30 * 1;
  const uint64_t bus1 = (2 + 1 + 2 + 5 * 1) + 31 * 1;
  EXPECT_EQ(bridge.reads, bus0 + bus1);
}

TEST_F(PciTest, BridgeWithoutAListIsScannedWhole) {
  SimRootBridge& bridge = pci.Add();
  bridge.configurationStatus = Status::Unsupported;
  bridge.AddFunction(200, 1, 0, 0x10DE, 0x03, false, {});
  PciConfiguration map;
  ASSERT_EQ(ScanCode(map), 0u);
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(bridge.busesRead.size(), 256u);
}

TEST_F(PciTest, LaterBridgeWinsOnTheSameAddress) {
  for (uint8_t baseClass : {0x02, 0x03}) {
    SimRootBridge& bridge = pci.Add();
    bridge.descriptors = List({SimRootBridge::BusRange(0, 0), SimRootBridge::EndTag()});
    bridge.AddFunction(0, 1, 0, 0x1234, baseClass, false, {});
  }
  PciConfiguration map;
  ASSERT_EQ(ScanCode(map), 0u);
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(map.begin()->second[0x0B], 0x03);
}

TEST_F(PciTest, FailedReadsSkipFunctionsNotTheScan) {
  SimRootBridge& bridge = pci.Add();
  bridge.descriptors = List({SimRootBridge::BusRange(0, 0), SimRootBridge::EndTag()});
  bridge.AddFunction(0, 1, 0, 0x1234, 0x03, false, {});
  bridge.AddFunction(0, 3, 0, 0x1234, 0x03, true, {});
  bridge.AddFunction(0, 3, 1, 0x1234, 0x03, true, {});
  bridge.AddFunction(0, 3, 2, 0x1234, 0x03, true, {});
  bridge.readFails = {Key(0, 1, 0), Key(0, 3, 1)};
  PciConfiguration map;
  ASSERT_EQ(ScanCode(map), 0u);
  std::vector<uint64_t> keys;
  for (const auto& [key, header] : map) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<uint64_t>{Key(0, 3, 0), Key(0, 3, 2)}));
}

TEST_F(PciTest, FirmwareFailuresAreRuntimeErrors) {
  PciConfiguration map;
  EXPECT_EQ(ScanCode(map), 0x1480001u) << "no root bridge protocol";
  pci.noBridgesIsSuccess = true;
  EXPECT_EQ(ScanCode(map), 0u) << "success without handles: nothing to scan";
  EXPECT_TRUE(map.empty());

  pci.locateStatus = Status::DeviceError;
  EXPECT_EQ(ScanCode(map), 0x1480001u);
  pci.locateStatus = Status::Success;

  SimRootBridge& bridge = pci.Add();
  bridge.descriptors = List({SimRootBridge::BusRange(0, 0), SimRootBridge::EndTag()});
  pci.handleProtocolFails = true;
  EXPECT_EQ(ScanCode(map), 0x1480001u);
  pci.handleProtocolFails = false;
  bridge.configurationStatus = Status::DeviceError;
  EXPECT_EQ(ScanCode(map), 0x1480001u);
  bridge.configurationStatus = Status::Success;
  bridge.nullList = true;
  EXPECT_EQ(ScanCode(map), 0x1480001u);
  bridge.nullList = false;
  EXPECT_EQ(ScanCode(map), 0u);

  fw.pci = nullptr;
  EXPECT_EQ(ScanCode(map), 0x1480001u);
}

TEST_F(PciTest, HostileDescriptorListsEndInBoundedTime) {
  SimRootBridge& bridge = pci.Add();
  // No end tag: the zeros behind the list are one-byte descriptors up to
  // the walk's limit.
  bridge.descriptors = SimRootBridge::BusRange(0, 0);
  PciConfiguration map;
  EXPECT_EQ(ScanCode(map), 0x1480001u);
  // A large descriptor whose length jumps far past the list.
  bridge.descriptors = {0x8A, 0xFF, 0xFF, 0};
  EXPECT_EQ(ScanCode(map), 0x1480001u);
  // Bus numbers beyond eight bits.
  bridge.descriptors = List({SimRootBridge::BusRange(254, 0xFFFFFFFFu), SimRootBridge::EndTag()});
  EXPECT_EQ(ScanCode(map), 0u);
  EXPECT_EQ(bridge.busesRead, (std::set<uint32_t>{0, 254, 255}));
}

TEST(PciDescriptors, NextDescriptorLengths) {
  uint8_t large[48] = {0x8A, 43, 0};
  EXPECT_EQ(NextDescriptor(large), large + 46);
  const uint8_t small[] = {0x47, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(NextDescriptor(small), small + 8);
  const uint8_t irq[] = {0x22, 0, 0};
  EXPECT_EQ(NextDescriptor(irq), irq + 3);
  const uint8_t end[] = {0x79, 0};
  EXPECT_EQ(ThrownCode([&] { NextDescriptor(end); }), 0x1480001u);
  EXPECT_EQ(ThrownCode([] { NextDescriptor(nullptr); }), 0x1480001u);
}

}  // namespace
