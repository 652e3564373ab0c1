// The LoadKernel action on the simulated machine: files from the loader's
// own device packed into blocks, and the Secure Boot road with signed
// digest lists and the walk of RAM disks that are not listed.
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "../file/external_tools.h"
#include "../fs/fat_test_util.h"
#include "../ramdisk/cpio_builder.h"
#include "../signatures/signing.h"
#include "efi/host_only/sim_blocks.h"
#include "efi/main.h"
#include "linux_fixture.h"
#include "test_util.h"

using namespace EfiLoader;
using linux_test::KernelSpec;
using linux_test::LinuxTest;
using linux_test::MakeKernel;
using test_util::CpioBytes;
using test_util::CpioEntry;
using test_util::CpioTrailer;
namespace BP = EfiLoader::BootParams;

namespace {

std::string Sha256Hex(const std::string& data) {
  uint8_t d[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const uint8_t*>(data.data()), data.size(), d);
  return test_util::Hex(std::vector<uint8_t>(d, d + sizeof d));
}

std::string Archive(const std::vector<CpioEntry>& entries) {
  std::string out;
  for (const CpioEntry& e : entries) out += CpioBytes(e);
  return out + CpioTrailer();
}

class LoadKernelTest : public LinuxTest {
 protected:
  LoadKernelTest() {
    kernel = MakeKernel(KernelSpec{});
    disk.Write("boot/vmlinuz", kernel);
  }

  // Runs the loader with `action` as the configuration's action.  The
  // console; `started` tells whether the kernel was reached.
  std::string Run(const std::string& action) {
    disk.Write("EFI/BOOT/BOOTX64.xml", "<Config>" + action + "</Config>");
    // A machine as before any boot: the last one may have left it without
    // boot services.
    const auto map = memory.map;
    memory = Sim::SimMemory();
    memory.map = map;
    started = false;
    try {
      LoaderMain();
    } catch (const Sim::KernelStarted&) {
      started = true;
    }
    return fw.ConsoleUtf8();
  }

  void SecureBoot(bool on) {
    const uint8_t one = 1, zero = 0;
    fw.SetVariable(u"SecureBoot", kGlobalVariableGuid, 6, on ? &one : &zero, 1);
    fw.SetVariable(u"SetupMode", kGlobalVariableGuid, 6, &zero, 1);
  }

  // A list signed with the first development key.
  static std::string SignedList(const std::vector<std::string>& files) {
    static test_util::Pkey key = test_util::LoadPrivateKey(test_util::DevKeyPath("first"));
    std::string body;
    for (const auto& f : files) body += Sha256Hex(f) + "\n";
    return test_util::SignedList(body, key.get(), EVP_sha256());
  }

  // The bytes of the RAM disk block the kernel was given.
  std::string RamdiskGiven() {
    const uint8_t* zp = ZeroPage();
    const uint32_t address = BP::Get32(zp + BP::kRamdiskImage);
    const uint32_t size = BP::Get32(zp + BP::kRamdiskSize);
    if (!address) return {};
    return std::string(reinterpret_cast<const char*>(memory.At(address)), size);
  }

  std::string kernel;
  bool started = false;
};

constexpr char kTwoRamdisks[] =
    "<LoadKernel><Loading Text='Loading Linux...'/>"
    "<Kernel Path='/boot/vmlinuz' Arguments='console=ttyS0 rdinit=/init'/>"
    "<Ramdisk Path='/boot/one.img'/><Ramdisk Path='\\boot\\two.img'/>"
    "<Hash Path='/boot/list.sig'/></LoadKernel>";

TEST_F(LoadKernelTest, FilesOfTheOwnDeviceArePackedForTheKernel) {
  const std::string one = test_util::SampleData(5000, 1), two = "xyz";
  disk.Write("boot/one.img", one);
  disk.Write("boot/two.img", two);
  const std::string out = Run(kTwoRamdisks);
  ASSERT_TRUE(started) << out;
  EXPECT_EQ(out.rfind("Starting x64 UEFI loader (v.1.1.236)...\nLoading Linux...\n"
                      "Loading protected mode kernel...\n", 0), 0u) << out;
  EXPECT_EQ(RamdiskGiven(), one + two) << "one behind the other without a gap";
  const uint8_t* zp = ZeroPage();
  EXPECT_LT(BP::Get32(zp + BP::kRamdiskImage) + 5003ull, 0x80000000ull);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(zp + 0x1000)), "console=ttyS0 rdinit=/init");
  EXPECT_EQ(memory.At(memory.start.entry)[0], linux_test::BodyByte(0));
  // Without Secure Boot the lists are not even read: list.sig does not exist.
}

TEST_F(LoadKernelTest, WithoutRamdiskElementsTheKernelGetsNone) {
  const std::string out = Run("<LoadKernel><Kernel Path='\\boot\\vmlinuz'/></LoadKernel>");
  ASSERT_TRUE(started) << out;
  EXPECT_EQ(BP::Get32(ZeroPage() + BP::kRamdiskImage), 0u);
  EXPECT_EQ(BP::Get32(ZeroPage() + BP::kRamdiskSize), 0u);
}

TEST_F(LoadKernelTest, ConfigurationAndFileFailures) {
  struct Case {
    const char* what;
    std::string action;
    const char* report;
  };
  const Case cases[] = {
      {"two kernels",
       "<LoadKernel><Kernel Path='/boot/vmlinuz'/><Kernel Path='/boot/vmlinuz'/></LoadKernel>",
       "Error 0x1480009: The configuration file has an incorrect format."},
      {"a RAM disk without path",
       "<LoadKernel><Kernel Path='/boot/vmlinuz'/><Ramdisk/></LoadKernel>",
       "Error 0x1480009: The configuration file has an incorrect format."},
      {"a kernel without path", "<LoadKernel><Kernel/></LoadKernel>",
       "Error 0x1480009: The configuration file has an incorrect format."},
      {"a GUID that is none",
       "<LoadKernel><GPT Guid='not-a-guid'/><Kernel Path='/boot/vmlinuz'/></LoadKernel>",
       "Error 0x1480009: The configuration file has an incorrect format."},
      {"missing kernel", "<LoadKernel><Kernel Path='/boot/nothing'/></LoadKernel>",
       "Error 0x40007: Error occurred while opening the file."},
      {"missing RAM disk",
       "<LoadKernel><Kernel Path='/boot/vmlinuz'/><Ramdisk Path='/boot/none.img'/></LoadKernel>",
       "Error 0x40007: Error occurred while opening the file."},
      {"a partition nobody has",
       "<LoadKernel><GPT Guid='0FC63DAF-8483-4772-8E79-3D69D8477DE4'/>"
       "<Kernel Path='/boot/vmlinuz'/></LoadKernel>",
       "Error 0x1480008: Cannot get file \"/boot/vmlinuz\" from the partition with GUID "
       "0FC63DAF-8483-4772-8E79-3D69D8477DE4."},
  };
  for (const Case& c : cases) {
    fw.console.clear();
    const std::string out = Run(c.action);
    EXPECT_FALSE(started) << c.what;
    EXPECT_NE(out.find(std::string("Runtime error:\n") + c.report), std::string::npos)
        << c.what << "\n" << out;
    EXPECT_EQ(memory.LiveBlocks(), 0u) << c.what << ": blocks go back with the failure";
  }
}

TEST_F(LoadKernelTest, BadKernelsAreRefusedBeforeAnythingRuns) {
  struct Case {
    const char* what;
    KernelSpec spec;
    const char* report;
  };
  KernelSpec old, unaligned, loose;
  old.version = 0x0209;
  loose.relocatable = 0;
  unaligned.initSize = 16;
  const Case cases[] = {
      {"protocol 2.09", old, "Error 0x1480003: An unsupported kernel version."},
      {"not relocatable", loose, "Error 0x1480003: An unsupported kernel version."},
      {"init_size below the body", unaligned, "Error 0x1480002: The kernel is corrupted."},
  };
  for (const Case& c : cases) {
    fw.console.clear();
    disk.Write("boot/vmlinuz", MakeKernel(c.spec));
    const std::string out = Run("<LoadKernel><Kernel Path='/boot/vmlinuz'/></LoadKernel>");
    EXPECT_FALSE(started) << c.what;
    EXPECT_NE(out.find(c.report), std::string::npos) << c.what << "\n" << out;
    EXPECT_FALSE(memory.exited) << c.what;
  }
  fw.console.clear();
  disk.Write("boot/vmlinuz", "MZ not a bzImage");
  EXPECT_NE(Run("<LoadKernel><Kernel Path='/boot/vmlinuz'/></LoadKernel>")
                .find("Error 0x1480002: The kernel is corrupted."),
            std::string::npos);
}

// ---------------------------------------------------------------- Secure Boot

class SecureBootRoad : public LoadKernelTest {
 protected:
  SecureBootRoad() { SecureBoot(true); }
  // The report of a refused boot, or "booted".
  std::string Outcome(const std::string& action) {
    fw.console.clear();
    const std::string out = Run(action);
    if (started) return "booted";
    const size_t at = out.find("Runtime error:\n");
    return at == std::string::npos ? out : out.substr(at);
  }
  // Refused with the verification error, `cause` somewhere in its chain.
  static bool Refused(const std::string& outcome, const char* cause) {
    return outcome.rfind("Runtime error:\nError 0x1480017: Failed to verify the file signatures.", 0) == 0 &&
           outcome.find(cause) != std::string::npos;
  }
};

TEST_F(SecureBootRoad, ListedFilesBootAlteredOnesDoNot) {
  const std::string one = "first RAM disk", two = "second RAM disk";
  disk.Write("boot/one.img", one);
  disk.Write("boot/two.img", two);
  disk.Write("boot/list.sig", SignedList({kernel, one, two}));
  EXPECT_EQ(Outcome(kTwoRamdisks), "booted");
  EXPECT_EQ(RamdiskGiven(), one + two);

  // One byte of the kernel changed.
  std::string altered = kernel;
  altered[kernel.size() - 1] ^= 1;
  disk.Write("boot/vmlinuz", altered);
  const std::string outcome = Outcome(kTwoRamdisks);
  EXPECT_TRUE(Refused(outcome, "0x1480012: An incorrect kernel hash.")) << outcome;
  EXPECT_FALSE(memory.exited);

  // Listed in two lists: the digests of every list count.
  disk.Write("boot/vmlinuz", kernel);
  disk.Write("boot/list.sig", SignedList({kernel}));
  disk.Write("boot/more.sig", SignedList({one, two}));
  EXPECT_EQ(Outcome("<LoadKernel><Kernel Path='/boot/vmlinuz'/><Ramdisk Path='/boot/one.img'/>"
                    "<Hash Path='/boot/list.sig'/><Hash Path='/boot/more.sig'/></LoadKernel>"),
            "booted");
}

TEST_F(SecureBootRoad, ListsThatDoNotHold) {
  disk.Write("boot/one.img", "x");
  disk.Write("boot/two.img", "y");
  const std::string action = kTwoRamdisks;
  // No list at all.
  EXPECT_TRUE(Refused(Outcome("<LoadKernel><Kernel Path='/boot/vmlinuz'/></LoadKernel>"),
                      "An incorrect kernel hash."));
  // A list whose text was changed after signing.
  std::string list = SignedList({kernel, "x", "y"});
  list[3] = list[3] == 'a' ? 'b' : 'a';
  disk.Write("boot/list.sig", list);
  std::string outcome = Outcome(action);
  EXPECT_TRUE(Refused(outcome, "0x1480011: An invalid file signature.")) << outcome;
  // A list that is missing.
  disk.Write("boot/list.sig", "");
  std::remove((disk.Path() + "/boot/list.sig").c_str());
  outcome = Outcome(action);
  EXPECT_TRUE(Refused(outcome, "0x40007")) << outcome;
}

TEST_F(SecureBootRoad, UnlistedRamdiskIsWalked) {
  disk.Write("boot/list.sig", SignedList({kernel}));
  const std::string allowed = Archive({{"ConfigurationFiles", 040755},
                                       {"ConfigurationFiles/network.conf", 0100644, "dhcp\n"},
                                       {"ConfigurationFiles/sub", 040700},
                                       {"ConfigurationFiles/sub/keys", 0100600, "k"}});
  const std::string action =
      "<LoadKernel><Kernel Path='/boot/vmlinuz'/><Ramdisk Path='/boot/conf.img'/>"
      "<Hash Path='/boot/list.sig'/></LoadKernel>";
  struct Case {
    const char* what;
    std::string image;
    const char* result;  // "booted" or the cause the report holds
  };
  const Case cases[] = {
      {"plain archive", allowed, "booted"},
      {"gzip", test_util::RunFilter("gzip -9 -c", allowed), "booted"},
      {"xz", test_util::RunFilter("xz --check=crc32 -c", allowed), "booted"},
      {"an executable file", Archive({{"ConfigurationFiles/run.sh", 0100755, "#!/bin/sh"}}),
       "0x1480013: The RAM disk contains a node of an unexpected type."},
      {"an executable inside xz",
       test_util::RunFilter("xz -c", Archive({{"ConfigurationFiles/x", 0100744, "x"}})),
       "0x1480013: The RAM disk contains a node of an unexpected type."},
      {"a symbolic link", Archive({{"ConfigurationFiles/l", 0120777, "/etc/shadow"}}),
       "0x1480013: The RAM disk contains a node of an unexpected type."},
      {"a device", Archive({{"ConfigurationFiles/sda", 060600}}),
       "0x1480013: The RAM disk contains a node of an unexpected type."},
      {"a file elsewhere", Archive({{"init", 0100644, "x"}}),
       "0x148001b: The RAM disk contains an unexpected ConfigurationFiles directory."},
      {"a leading ./", Archive({{"./ConfigurationFiles/a", 0100644, "x"}}),
       "0x148001b"},
      {"the root directory", Archive({{".", 040755}}), "0x148001b"},
      {"a way out", Archive({{"ConfigurationFiles/../init", 0100644, "x"}}),
       "0x148001c: The RAM disk contains an unexpected relative path."},
      {"not an archive", std::string("PK\x03\x04 a zip file"), "0x4000d: The file is corrupted."},
      {"shorter than a magic", "0707", "0x4000d: The file is corrupted."},
      {"cut inside the archive", allowed.substr(0, 150), "0x4000d"},
  };
  for (const Case& c : cases) {
    disk.Write("boot/conf.img", c.image);
    const std::string outcome = Outcome(action);
    if (std::string(c.result) == "booted") {
      EXPECT_EQ(outcome, "booted") << c.what;
    } else {
      EXPECT_TRUE(Refused(outcome, c.result)) << c.what << "\n" << outcome;
    }
  }
}

TEST_F(SecureBootRoad, ReportsNameWhereTheCheckFailed) {
  disk.Write("boot/list.sig", SignedList({kernel}));
  const std::string action =
      "<LoadKernel><Kernel Path='/boot/vmlinuz'/><Ramdisk Path='/boot/conf.img'/>"
      "<Hash Path='/boot/list.sig'/></LoadKernel>";
  disk.Write("boot/conf.img", Archive({{"bin/sh", 0100755, "x"}}));
  EXPECT_NE(Outcome(action).find("\n| function: operator()\n"), std::string::npos);
  disk.Write("boot/conf.img", "garbage!");
  EXPECT_NE(Outcome(action).find("\n| function: VerifyContents\n"), std::string::npos);
  disk.Write("boot/list.sig", SignedList({}));
  EXPECT_NE(Outcome(action).find("\n| function: VerifySignature\n"), std::string::npos);
}

TEST_F(SecureBootRoad, ListedRamdiskIsNotWalked) {
  // An archive the filter would refuse passes when its digest is listed.
  const std::string image = Archive({{"init", 0100755, "#!/bin/sh"}});
  disk.Write("boot/conf.img", image);
  disk.Write("boot/list.sig", SignedList({kernel, image}));
  EXPECT_EQ(Outcome("<LoadKernel><Kernel Path='/boot/vmlinuz'/><Ramdisk Path='/boot/conf.img'/>"
                    "<Hash Path='/boot/list.sig'/></LoadKernel>"),
            "booted");
}

TEST_F(SecureBootRoad, OnlyAnEnforcingFirmwareChecks) {
  disk.Write("boot/one.img", "x");
  disk.Write("boot/two.img", "y");
  SecureBoot(false);  // no list.sig on the disk at all
  EXPECT_EQ(Outcome(kTwoRamdisks), "booted");
  SecureBoot(true);
  const uint8_t setup = 1;
  fw.SetVariable(u"SetupMode", kGlobalVariableGuid, 6, &setup, 1);
  EXPECT_EQ(Outcome(kTwoRamdisks), "booted") << "setup mode enforces nothing";
}

}  // namespace

// ---------------------------------------------------------------- partitions

namespace {

constexpr char kPartition[] = "5B1D93A2-0C47-4E34-9C3F-2D8E6A7B1C40";

// Kernel and RAM disks on a FAT partition of a GPT disk made by mkfs.fat
// and sgdisk; the loader's own device holds only its configuration.
class PartitionBoot : public LoadKernelTest {
 protected:
  void SetUp() override {
    const std::string part = scratch / "part.img", image = scratch / "disk.img";
    ASSERT_TRUE(fs_test::MakeFat(part, fs_test::FatLayout{16, 4, 512, 16384}));
    fs_test::WriteTree(scratch / "src", {{"boot/", ""},
                                         {"boot/vmlinuz", kernel},
                                         {"boot/initrd.img", initrd},
                                         {"boot/more.img", more}});
    ASSERT_TRUE(fs_test::CopyTree(part, scratch / "src"));
    ASSERT_TRUE(fs_test::Run("truncate -s 24M '" + image + "' && sgdisk -n 1:2048:+16M -u 1:" +
                             kPartition + " '" + image + "' && dd if='" + part + "' of='" + image +
                             "' bs=512 seek=2048 conv=notrunc"));
    ASSERT_TRUE(blocks.AddDiskImage(image).IsSuccess());
    fw.blocks = &blocks;
  }

  test_util::TempDir scratch;
  Sim::SimBlocks blocks;
  const std::string initrd = fs_test::Pattern(70000, 3), more = "second";
};

TEST_F(PartitionBoot, KernelAndRamdisksFromOnePartitionMountedOnce) {
  const std::string out =
      Run(std::string("<LoadKernel><GPT Guid='") + kPartition + "'/>"
          "<Kernel Path='/boot/vmlinuz' Arguments='root=/dev/sda1'/>"
          "<Ramdisk Path='\\BOOT\\initrd.img'/><Ramdisk Path='/boot/more.img'/></LoadKernel>");
  ASSERT_TRUE(started) << out;
  EXPECT_EQ(RamdiskGiven(), initrd + more);
  EXPECT_EQ(memory.At(memory.start.entry)[0], linux_test::BodyByte(0));
  // Three files, one mount: the partition's Block I/O was opened once.
  ASSERT_EQ(blocks.devices.size(), 2u);
  EXPECT_EQ(blocks.devices[1]->opensTotal, 1);
}

TEST_F(PartitionBoot, MissingFileNamesPathAndPartition) {
  const std::string out = Run(std::string("<LoadKernel><GPT Guid='") + kPartition + "'/>"
                              "<Kernel Path='/boot/none'/></LoadKernel>");
  EXPECT_FALSE(started);
  EXPECT_NE(out.find(std::string("Runtime error:\nError 0x1480008: Cannot get file \"/boot/none\" "
                                 "from the partition with GUID ") + kPartition + "."),
            std::string::npos) << out;
  EXPECT_NE(out.find("| error 0x148001a: Failed to open the file."), std::string::npos) << out;
}

}  // namespace
