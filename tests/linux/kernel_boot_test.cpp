// The kernel's boot header, the zero page handed to it and the placement of
// the protected-mode kernel, on the simulated machine.
#include <gtest/gtest.h>

#include "efi/linux.h"
#include "efi/memory.h"
#include "file/buf_ifile.h"
#include "linux_fixture.h"
#include "test_util.h"

using namespace EfiLoader;
using linux_test::KernelSpec;
using linux_test::LinuxTest;
using linux_test::MakeKernel;
using test_util::ThrownCode;
namespace BP = EfiLoader::BootParams;

namespace {

// Delivers `size` bytes of `data` but claims `claimed`: what a damaged
// volume's file may do.
class ShortStream final : public ri_file {
 public:
  ShortStream(const void* data, uint64_t size, int64_t claimed) : inner_(data, size), claimed_(claimed) {}
  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override { inner_.Read(buffer, size, got); }
  int64_t GetSize() override { return claimed_; }
  int64_t Seek(int64_t position) override { return inner_.Seek(position); }
  int64_t SeekCur(int64_t delta) override { return inner_.SeekCur(delta); }
  int64_t SeekEnd(int64_t delta) override { return Seek(claimed_ + delta); }

 private:
  buf_ifile<unsigned char> inner_;
  int64_t claimed_;
};

uint32_t ValidateCode(const KernelSpec& spec) {
  const std::string k = MakeKernel(spec);
  std::vector<uint8_t> page(1024, 0);
  std::memcpy(page.data(), k.data(), k.size() < 1024 ? k.size() : 1024);
  return ThrownCode([&] { ValidateKernel(page.data(), k.size()); });
}

TEST(KernelHeader, EachRuleHasItsError) {
  constexpr uint32_t kCorrupted = 0x1480002, kUnsupported = 0x1480003;
  struct Case {
    const char* what;
    void (*change)(KernelSpec&);
    uint32_t code;
  };
  const Case cases[] = {
      {"valid", [](KernelSpec&) {}, 0},
      {"boot flag", [](KernelSpec& s) { s.bootFlag = 0x55AA; }, kCorrupted},
      {"magic", [](KernelSpec& s) { s.magic = 0x53726449; }, kCorrupted},
      {"not loaded high", [](KernelSpec& s) { s.loadFlags = 0x80; }, kUnsupported},
      {"protocol 2.09", [](KernelSpec& s) { s.version = 0x0209; }, kUnsupported},
      {"protocol 2.10", [](KernelSpec& s) { s.version = 0x020A; }, 0},
      {"header ends before init_size", [](KernelSpec& s) { s.jumpByte = 97; }, kCorrupted},
      {"header just reaches init_size", [](KernelSpec& s) { s.jumpByte = 98; }, 0},
      {"not relocatable", [](KernelSpec& s) { s.relocatable = 0; }, kUnsupported},
      {"init_size below the body", [](KernelSpec& s) { s.initSize = s.bodySize - 1; }, kCorrupted},
      {"init_size equal to the body", [](KernelSpec& s) { s.initSize = s.bodySize; }, 0},
      {"version string outside the setup",
       [](KernelSpec& s) { s.setupSects = 1; }, kCorrupted},
      {"file ends inside the setup",
       [](KernelSpec& s) { s.setupSects = 30; s.bodySize = 0; s.truncateTo = 4096; }, kCorrupted},
      // The first broken rule decides.
      {"magic and protocol", [](KernelSpec& s) { s.magic = 0; s.version = 0x0100; }, kCorrupted},
      {"protocol and header length", [](KernelSpec& s) { s.version = 0x0100; s.jumpByte = 0; },
       kUnsupported},
  };
  for (const Case& c : cases) {
    KernelSpec spec;
    c.change(spec);
    EXPECT_EQ(ValidateCode(spec), c.code) << c.what;
  }
}

TEST(KernelHeader, SetupSizeCountsZeroSectorsAsFour) {
  KernelSpec spec;
  spec.setupSects = 0;
  const std::string k = MakeKernel(spec);
  const KernelHeader h = KernelHeader::Read(reinterpret_cast<const uint8_t*>(k.data()));
  EXPECT_EQ(h.SetupSize(), 2560u);
  spec.setupSects = 1;
  EXPECT_EQ(KernelHeader::Read(reinterpret_cast<const uint8_t*>(MakeKernel(spec).data())).SetupSize(),
            1024u);
}

// ---------------------------------------------------------------- RunLinux

class RunLinuxTest : public LinuxTest {
 protected:
  // Runs the boot; the code of the error it ended with, 0 when the kernel
  // was started.
  uint32_t Boot(const std::string& kernelBytes, const std::string& arguments,
                PageAlignedMemory* ramdisk = nullptr) {
    buf_ifile<unsigned char> kernel(kernelBytes.data(), kernelBytes.size());
    PageAlignedMemory none;
    try {
      RunLinux(kernel, ramdisk ? *ramdisk : none, arguments);
    } catch (const Sim::KernelStarted&) {
      return 0;
    } catch (const Common::Error& e) {
      return e.Code();
    }
    ADD_FAILURE() << "RunLinux came back without an error";
    return 1;
  }
  // A machine as before any boot (the last one left it without boot
  // services).
  void NewMachine() {
    const auto map = memory.map;
    memory = Sim::SimMemory();
    memory.map = map;
  }
  static bool AllZero(const uint8_t* p, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i)
      if (p[i] != 0) return false;
    return true;
  }
};

TEST_F(RunLinuxTest, ZeroPageAsTheKernelGetsIt) {
  memory.systemTable = 0x17F9E0018ull;  // an address above 4 GiB tests both halves
  KernelSpec spec;
  const std::string kernel = MakeKernel(spec);
  PageAlignedMemory ramdisk(300 + 4096, kFileMemoryLimit);
  ASSERT_EQ(Boot(kernel, "console=ttyS0 root=/dev/ram0", &ramdisk), 0u);
  const uint8_t* zp = ZeroPage();
  ASSERT_NE(zp, nullptr);

  // Cleared before the header, but what the loader writes there.
  EXPECT_TRUE(AllZero(zp, 0x40, 0x1C0));
  EXPECT_TRUE(AllZero(zp, 0x1E4, 0x1E8));
  EXPECT_TRUE(AllZero(zp, 0x1E9, 0x1F1));
  // The header as the file has it, with the loader's fields.
  EXPECT_EQ(zp[BP::kSetupSects], 4);
  EXPECT_EQ(BP::Get32(zp + BP::kHeader), 0x53726448u);
  EXPECT_EQ(BP::Get16(zp + BP::kVersion), 0x020F);
  EXPECT_EQ(zp[BP::kTypeOfLoader], 0x50);
  EXPECT_EQ(zp[BP::kLoadFlags], 0x81);
  EXPECT_EQ(BP::Get16(zp + BP::kHeapEndPtr), 0x2E00);
  EXPECT_EQ(BP::Get32(zp + BP::kRamdiskImage), ramdisk.Address());
  EXPECT_EQ(BP::Get32(zp + BP::kRamdiskSize), 300u);
  EXPECT_EQ(BP::Get32(zp + BP::kAltMemK), 32768u);
  EXPECT_EQ(BP::Get32(zp + BP::kCmdLinePtr), memory.start.zeroPage + 0x1000);
  EXPECT_EQ(std::memcmp(zp + 0x1C0, "EL64", 4), 0);
  EXPECT_EQ(BP::Get32(zp + BP::kEfiSystab), 0x7F9E0018u);
  EXPECT_EQ(BP::Get32(zp + BP::kEfiSystabHi), 1u);
  EXPECT_EQ(BP::Get32(zp + BP::kInitSize), spec.initSize);
  // Everything behind the header is the loader's: zero but for its tables.
  EXPECT_TRUE(AllZero(zp, 0x26C, BP::kE820Table));
  const uint8_t entries = zp[BP::kE820Entries];
  EXPECT_GT(entries, 0);
  EXPECT_TRUE(AllZero(zp, BP::kE820Table + entries * 20u, 0x1000));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(zp + 0x1000)), "console=ttyS0 root=/dev/ram0");
  EXPECT_TRUE(AllZero(zp, 0x1000 + 28, 0x3000));
  EXPECT_EQ(std::memcmp(zp + 0x3000, memory.stub, 200), 0);
  EXPECT_TRUE(AllZero(zp, 0x3000 + 200, 0x4000));

  // Below 768 MiB, started at the stub with the kernel's entry.
  EXPECT_LT(memory.start.zeroPage + 0x4000, 0x30000001u);
  EXPECT_EQ(memory.start.zeroPage % 4096, 0u);
  EXPECT_EQ(memory.start.stub, memory.start.zeroPage + 0x3000);
  EXPECT_EQ(BP::Get32(zp + BP::kCode32Start), memory.start.entry);
  EXPECT_TRUE(memory.exited);
  EXPECT_EQ(memory.callsAfterExit, 0);

  // The body lies at the entry, byte for byte.
  uint64_t left = 0;
  const uint8_t* body = memory.At(memory.start.entry, &left);
  ASSERT_NE(body, nullptr);
  ASSERT_GE(left, spec.initSize);
  for (uint32_t i = 0; i < spec.bodySize; ++i) ASSERT_EQ(body[i], linux_test::BodyByte(i)) << i;

  EXPECT_EQ(fw.ConsoleUtf8(),
            "Loading protected mode kernel...\nPress <e> to edit kernel command line\n");
  EXPECT_EQ(fw.stalled100ns, 40000000u);
  // The screen for the kernel: the best 4:3 mode up to 1024 x 768.
  EXPECT_EQ(BP::Get16(zp + 0x12), 1024);
  EXPECT_EQ(BP::Get16(zp + 0x14), 768);
  EXPECT_EQ(zp[0x0F], 0x70);
}

TEST_F(RunLinuxTest, LoadAddressIsRoundedUpToTheKernelAlignment) {
  KernelSpec spec;
  spec.alignment = 0x200000;
  ASSERT_EQ(Boot(MakeKernel(spec), ""), 0u);
  EXPECT_EQ(memory.start.entry % 0x200000, 0u);
  // The block is init_size + alignment: the entry is inside it with
  // init_size bytes behind it.
  uint64_t left = 0;
  ASSERT_NE(memory.At(memory.start.entry, &left), nullptr);
  EXPECT_GE(left, spec.initSize);
  EXPECT_EQ(memory.At(memory.start.entry)[0], linux_test::BodyByte(0));
}

TEST_F(RunLinuxTest, AlignedBlockStaysWhereItIs) {
  KernelSpec spec;  // 4 KiB alignment: every block of pages is aligned
  ASSERT_EQ(Boot(MakeKernel(spec), ""), 0u);
  bool atBlockStart = false;
  for (const auto& [address, bytes] : memory.Blocks())
    atBlockStart = atBlockStart || address == memory.start.entry;
  EXPECT_TRUE(atBlockStart);
}

TEST_F(RunLinuxTest, FileSizeLimitsAndTruncation) {
  KernelSpec tiny;
  tiny.setupSects = 1;
  tiny.versionString.clear();
  tiny.bodySize = 0;
  tiny.truncateTo = 1024;
  std::string k = MakeKernel(tiny);
  k.resize(1024);
  EXPECT_EQ(Boot(k, ""), 0x1480002u) << "1024 bytes";
  k.push_back('\x90');  // one byte of body
  NewMachine();
  EXPECT_EQ(Boot(k, ""), 0u) << "1025 bytes";

  // A stream that ends before the size it claims.
  NewMachine();
  const std::string whole = MakeKernel({});
  ShortStream shorter(whole.data(), whole.size() - 1, whole.size());
  PageAlignedMemory none;
  EXPECT_EQ(ThrownCode([&] { RunLinux(shorter, none, ""); }), 0x40002u) << "body one byte short";
  EXPECT_FALSE(memory.kernelStarted);
  EXPECT_EQ(memory.LiveBlocks(), 0u);
  ShortStream headerOnly(whole.data(), 1000, whole.size());
  EXPECT_EQ(ThrownCode([&] { RunLinux(headerOnly, none, ""); }), 0x40002u) << "header short";
}

TEST_F(RunLinuxTest, SetupOfZeroSectorsIsFourAndTheBodyFollowsIt) {
  KernelSpec spec;
  spec.setupSects = 0;
  ASSERT_EQ(Boot(MakeKernel(spec), ""), 0u);
  EXPECT_EQ(memory.At(memory.start.entry)[0], linux_test::BodyByte(0));
  EXPECT_EQ(memory.At(memory.start.entry)[spec.bodySize - 1], linux_test::BodyByte(spec.bodySize - 1));
}

TEST_F(RunLinuxTest, CommandLineIsCutAt1023Bytes) {
  std::string line(2000, 'a');
  for (size_t i = 0; i < line.size(); ++i) line[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(Boot(MakeKernel({}), line), 0u);
  const uint8_t* zp = ZeroPage();
  EXPECT_EQ(std::memcmp(zp + 0x1000, line.data(), 1023), 0);
  EXPECT_EQ(zp[0x1000 + 1023], 0);
}

TEST_F(RunLinuxTest, NoRamdiskLeavesItsFieldsZero) {
  ASSERT_EQ(Boot(MakeKernel({}), "x"), 0u);
  EXPECT_EQ(BP::Get32(ZeroPage() + BP::kRamdiskImage), 0u);
  EXPECT_EQ(BP::Get32(ZeroPage() + BP::kRamdiskSize), 0u);
}

TEST_F(RunLinuxTest, OwnKernelsGetAVirtualMapOthersDoNot) {
  struct Case {
    std::string version;
    int virtualMaps;
  };
  const std::string pad(240, 'x');
  const Case cases[] = {
      {"6.1.0-velarix-amd64 #1", 1},
      {"6.1.0-amd64 #1", 0},
      {"", 0},                         // no version string at all
      {pad + "-velarix-", 1},          // ends at byte 249: inside the 255 read
      {pad + "0123456789-velarix-", 0},  // cut at 255 bytes
  };
  for (const Case& c : cases) {
    NewMachine();
    KernelSpec spec;
    spec.versionString = c.version;
    spec.setupSects = 8;  // room for long version strings
    ASSERT_EQ(Boot(MakeKernel(spec), ""), 0u) << c.version;
    EXPECT_EQ(memory.virtualMapCalls, c.virtualMaps) << c.version;
  }
}

TEST_F(RunLinuxTest, FailuresBeforeTheExitLeaveTheFirmwareWhole) {
  // ExitBootServices refuses three times: an EFI runtime error, no kernel.
  memory.exitFailures = 3;
  EXPECT_EQ(Boot(MakeKernel({}), ""), 0x1480001u);
  EXPECT_FALSE(memory.kernelStarted);
  EXPECT_EQ(memory.exitCalls, 3);
  EXPECT_EQ(memory.LiveBlocks(), 0u) << "blocks go with their owners";

  // A kernel that needs more memory than there is.
  KernelSpec greedy;
  greedy.initSize = 0xFFFFF000;
  EXPECT_EQ(Boot(MakeKernel(greedy), ""), 0x40006u);
  memory.freePages = 3;  // not even the zero page
  EXPECT_EQ(Boot(MakeKernel({}), ""), 0x40006u);
  EXPECT_EQ(memory.LiveBlocks(), 0u);
}

}  // namespace
