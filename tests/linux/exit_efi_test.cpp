// Pages below a limit, the E820 table built from the firmware's memory map
// (with the overflow record), the bounded retries of ExitBootServices and
// the virtual map for the system's own kernels.
#include <gtest/gtest.h>

#include "efi/memory.h"
#include "linux_fixture.h"
#include "test_util.h"

using namespace EfiLoader;
using linux_test::LinuxTest;
using Sim::SimDescriptor;
using test_util::ThrownCode;
namespace BP = EfiLoader::BootParams;

namespace {

struct E820 {
  uint64_t address, size;
  uint32_t type;
  bool operator==(const E820&) const = default;
};

std::ostream& operator<<(std::ostream& os, const E820& e) {
  return os << std::hex << "{0x" << e.address << ", 0x" << e.size << ", " << e.type << "}";
}

constexpr uint64_t kWb = kMemoryWriteBack;
constexpr uint64_t kRuntime = kMemoryRuntime | kMemoryWriteBack;

class ExitEfiTest : public LinuxTest {
 protected:
  ExitEfiTest() : zeroPageBlock(BP::kBlockSize, kKernelMemoryLimit) {
    zp = zeroPageBlock.Data();
    std::memset(zp, 0, BP::kBlockSize);
  }

  // The whole table: the zero page's entries, then the overflow record's.
  std::vector<E820> Table() {
    std::vector<E820> out;
    for (uint32_t i = 0; i < zp[BP::kE820Entries]; ++i) {
      const uint8_t* e = zp + BP::kE820Table + i * 20;
      out.push_back({BP::Get64(e), BP::Get64(e + 8), BP::Get32(e + 16)});
    }
    const uint64_t setupData = BP::Get64(zp + BP::kSetupData);
    if (setupData) {
      const uint8_t* record = memory.At(setupData);
      EXPECT_EQ(BP::Get64(record), 0u);
      EXPECT_EQ(BP::Get32(record + 8), 1u);
      const uint32_t length = BP::Get32(record + 12);
      EXPECT_EQ(length % 20, 0u);
      for (uint32_t off = 0; off < length; off += 20) {
        const uint8_t* e = record + 16 + off;
        out.push_back({BP::Get64(e), BP::Get64(e + 8), BP::Get32(e + 16)});
      }
    }
    return out;
  }

  // `count` descriptors that merge with none of their neighbours.
  static std::vector<SimDescriptor> Scattered(size_t count) {
    std::vector<SimDescriptor> map;
    for (size_t i = 0; i < count; ++i)
      map.push_back({7, 0x100000 + i * 0x3000, 0, 1, kWb});  // gaps of two pages
    return map;
  }

  PageAlignedMemory zeroPageBlock;
  uint8_t* zp;
};

TEST(E820Types, FirmwareTypesMapOntoE820) {
  struct Case {
    uint32_t efi;
    uint64_t attribute;
    uint32_t e820;
  };
  const Case cases[] = {
      {1, kWb, 1},  {2, kWb, 1},  {3, kWb, 1}, {4, kWb, 1}, {7, kWb, 1},
      {7, 0x1, 2},  {2, 0, 2},    {0, kWb, 2}, {5, kWb, 2}, {6, kWb, 2},
      {8, kWb, 5},  {9, kWb, 3},  {9, 0, 3},   {10, kWb, 4}, {11, kWb, 2},
      {15, kWb, 2}, {0x80000000u, kWb, 2},
  };
  for (const Case& c : cases) EXPECT_EQ(E820TypeOf(c.efi, c.attribute), c.e820) << c.efi;
}

TEST_F(ExitEfiTest, AdjacentRangesOfOneTypeMerge) {
  ExitEFI(zp, false);
  const std::vector<E820> expected = {
      {0x0, 0xA0000, 1},          {0xA0000, 0x60000, 2},    {0x100000, 0x700000, 1},
      {0x800000, 0x8000, 4},      {0x808000, 0x7FF8000, 1}, {0x1F000000, 0x10000, 3},
      {0x1F010000, 0x30000, 2},   {0x1F040000, 0x1000, 5},
  };
  EXPECT_EQ(Table(), expected);
  EXPECT_EQ(BP::Get64(zp + BP::kSetupData), 0u);
  EXPECT_TRUE(memory.exited);
  // The firmware's own map stays for the kernel, described in the zero page.
  EXPECT_EQ(BP::Get32(zp + BP::kEfiMemdescSize), 48u);
  EXPECT_EQ(BP::Get32(zp + BP::kEfiMemdescVersion), 1u);
  EXPECT_EQ(BP::Get32(zp + BP::kEfiMemmapSize), 12u * 48);
  const uint64_t mapAddress = BP::Get32(zp + BP::kEfiMemmap) |
                              uint64_t{BP::Get32(zp + BP::kEfiMemmapHi)} << 32;
  const uint8_t* map = memory.At(mapAddress);
  ASSERT_NE(map, nullptr) << "the map's block was given back";
  EXPECT_LT(mapAddress, 0x80000000u);
  EXPECT_EQ(BP::Get64(map + 48 * 2 + 8), 0x100000u);
  // The first call offers nothing, and always leads to an allocation.
  ASSERT_GE(memory.mapOffers.size(), 2u);
  EXPECT_EQ(memory.mapOffers[0], 0u);
  EXPECT_EQ(memory.mapOffers[1], 4096u);
  EXPECT_EQ(memory.virtualMapCalls, 0);
}

TEST_F(ExitEfiTest, TableOverflowGoesToASetupDataRecord) {
  struct Case {
    size_t descriptors;
    size_t inRecord;
  };
  for (const Case c : {Case{128, 0}, Case{129, 1}, Case{300, 172}, Case{700, 572}}) {
    memory = Sim::SimMemory();
    memory.map = Scattered(c.descriptors);
    PageAlignedMemory page(BP::kBlockSize, kKernelMemoryLimit);
    zp = page.Data();
    std::memset(zp, 0, BP::kBlockSize);
    ExitEFI(zp, false);
    EXPECT_EQ(zp[BP::kE820Entries], 128) << c.descriptors;
    const std::vector<E820> table = Table();
    ASSERT_EQ(table.size(), c.descriptors);
    for (size_t i = 0; i < table.size(); ++i)
      ASSERT_EQ(table[i], (E820{0x100000 + i * 0x3000, 0x1000, 1})) << i;
    const uint64_t setupData = BP::Get64(zp + BP::kSetupData);
    EXPECT_EQ(setupData != 0, c.inRecord != 0) << c.descriptors;
    if (setupData) EXPECT_EQ(BP::Get32(memory.At(setupData) + 12), c.inRecord * 20);
    page.Disown();  // its simulated machine is gone
  }
}

TEST_F(ExitEfiTest, RecordIsSizedBeforeMergingButOnlyUsedWhenNeeded) {
  // 140 descriptors that merge into 128 entries.
  memory.map = Scattered(116);
  for (int i = 0; i < 24; ++i) memory.map.push_back({4, 0x10000000 + i * 0x1000ull, 0, 1, kWb});
  ExitEFI(zp, false);
  EXPECT_EQ(zp[BP::kE820Entries], 117);
  EXPECT_EQ(BP::Get64(zp + BP::kSetupData), 0u);
  EXPECT_EQ(Table().back(), (E820{0x10000000, 24 * 0x1000, 1}));
}

TEST_F(ExitEfiTest, ExitIsTriedThreeTimesAndTheTableKeepsGrowing) {
  memory.exitFailures = 2;
  ExitEFI(zp, false);
  EXPECT_EQ(memory.exitCalls, 3);
  const std::vector<E820> table = Table();
  ASSERT_EQ(table.size(), 24u) << "each attempt adds to what the earlier ones left";
  for (size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(table[i], table[i + 8]);
    EXPECT_EQ(table[i], table[i + 16]);
  }

  memory = Sim::SimMemory();
  memory.map = Scattered(4);
  memory.exitFailures = 3;
  PageAlignedMemory page(BP::kBlockSize, kKernelMemoryLimit);
  EXPECT_EQ(ThrownCode([&] { ExitEFI(page.Data(), false); }), 0x1480001u);
  EXPECT_EQ(memory.exitCalls, 3);
  EXPECT_FALSE(memory.exited);
  EXPECT_EQ(memory.LiveBlocks(), 1u) << "the map buffer was given back";
  zeroPageBlock.Disown();
}

TEST_F(ExitEfiTest, MapThatGrowsWithEachAllocation) {
  // A few new descriptors per allocation fit the slack of whole pages.
  memory.descriptorsPerAllocation = 2;
  memory.map = Scattered(200);
  ExitEFI(zp, false);
  EXPECT_TRUE(memory.exited);
  EXPECT_EQ(Table().size(), memory.map.size());

  // A firmware whose map always outgrows the buffer just given: bounded.
  memory = Sim::SimMemory();
  memory.map = Scattered(3);
  memory.descriptorsPerAllocation = 200;
  PageAlignedMemory page(BP::kBlockSize, kKernelMemoryLimit);
  EXPECT_EQ(ThrownCode([&] { ExitEFI(page.Data(), false); }), 0x1480001u);
  EXPECT_FALSE(memory.exited);
  EXPECT_LE(memory.getMapCalls, 40);
  EXPECT_EQ(memory.LiveBlocks(), 1u);
  zeroPageBlock.Disown();
}

TEST_F(ExitEfiTest, FirmwareAnswersThatCannotBeUsed) {
  struct Case {
    const char* what;
    void (*setUp)(Sim::SimMemory&);
    uint32_t code;
  };
  const Case cases[] = {
      {"descriptor size 0", [](Sim::SimMemory& m) { m.descriptorSize = 0; }, 0x1480001},
      {"descriptor smaller than the record", [](Sim::SimMemory& m) { m.descriptorSize = 24; },
       0x1480001},
      {"too small but asks no more", [](Sim::SimMemory& m) { m.mapAsksNoMore = true; }, 0x1480001},
      {"map fails", [](Sim::SimMemory& m) { m.mapStatus = Status::DeviceError; }, 0x40006},
      {"no pages for the map", [](Sim::SimMemory& m) { m.freePages = 0; }, 0x40006},
  };
  for (const Case& c : cases) {
    memory = Sim::SimMemory();
    memory.map = Scattered(3);
    c.setUp(memory);
    std::vector<uint8_t> page(BP::kBlockSize, 0);
    EXPECT_EQ(ThrownCode([&] { ExitEFI(page.data(), false); }), c.code) << c.what;
    EXPECT_FALSE(memory.exited) << c.what;
    EXPECT_EQ(memory.LiveBlocks(), 0u) << c.what;
  }
  zeroPageBlock.Disown();
}

TEST_F(ExitEfiTest, OwnKernelsGetRuntimeRegionsPackedBelowFourGiB) {
  memory.map = {
      {7, 0x100000, 0, 0x100, kWb},
      {5, 0x1F030000, 0, 0x10, kRuntime},     // low: keeps its address
      {4, 0x1F040000, 0, 0x10, kWb},
      {6, 0x100005000, 0, 2, kRuntime},       // above 4 GiB
      {11, 0x200000800, 0, 1, kRuntime},      // not page aligned: one page more
  };
  ExitEFI(zp, true);
  ASSERT_EQ(memory.virtualMapCalls, 1);
  ASSERT_EQ(memory.virtualMapSize, 3u * 48);
  EXPECT_EQ(BP::Get32(zp + BP::kEfiMemmapSize), 3u * 48);
  auto virt = [&](int i) { return BP::Get64(memory.virtualMap.data() + i * 48 + 16); };
  auto phys = [&](int i) { return BP::Get64(memory.virtualMap.data() + i * 48 + 8); };
  EXPECT_EQ(phys(0), 0x1F030000u);
  EXPECT_EQ(virt(0), 0x1F030000u);
  EXPECT_EQ(phys(1), 0x100005000u);
  EXPECT_EQ(virt(1), 0xFFFFC000u);
  EXPECT_EQ(phys(2), 0x200000800u);
  EXPECT_EQ(virt(2), 0xFFFFE800u);
  // The E820 table still describes the whole map.
  EXPECT_EQ(Table().size(), 5u);
}

TEST_F(ExitEfiTest, EmptyMapStillInstallsAVirtualMap) {
  memory.map.clear();
  ExitEFI(zp, true);
  EXPECT_EQ(memory.virtualMapCalls, 1);
  EXPECT_EQ(memory.virtualMapSize, 0u);
  EXPECT_EQ(zp[BP::kE820Entries], 0);
}

TEST_F(ExitEfiTest, PagesStayBelowTheirLimit) {
  PageAlignedMemory low(3 * 4096 + 1, 0x200000);
  EXPECT_EQ(low.Pages(), 4u);
  EXPECT_EQ(low.Size(), 3u * 4096 + 1);
  EXPECT_LE(low.Address() + low.Capacity() - 1, 0x200000u);
  EXPECT_EQ(low.Address() % 4096, 0u);

  PageAlignedMemory moved(std::move(low));
  EXPECT_TRUE(low.Empty());
  EXPECT_EQ(moved.Pages(), 4u);
  const size_t held = memory.LiveBlocks();
  moved.Release();
  EXPECT_EQ(memory.LiveBlocks(), held - 1);

  // More pages than 32 bits count, and no room below the limit.
  EXPECT_EQ(ThrownCode([] { PageAlignedMemory huge(0x1000000000000ull, ~0ull); }), 0x40006u);
  EXPECT_EQ(ThrownCode([] { PageAlignedMemory tight(0x200000, 0x1FFFFF); }), 0x40006u);
}

}  // namespace
