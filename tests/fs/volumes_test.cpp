// The loader's partition road on simulated firmware: a GPT disk image made
// by sgdisk, a FAT partition made by mkfs.fat and mtools, and files asked
// for by the partition's unique GUID and a path.
#include <gtest/gtest.h>

#include "common/text.h"
#include "efi/host_only/sim_blocks.h"
#include "efi/host_only/sim_firmware.h"
#include "efi/volumes.h"
#include "fat_test_util.h"
#include "filesys/collation.h"
#include "test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

const char* kBootGuid = "5B1D93A2-0C47-4E34-9C3F-2D8E6A7B1C40";
const char* kEmptyGuid = "C0FFEE00-1111-4222-8333-944455556666";

// A Latin-1 stand-in for the firmware's collation service: enough of code
// page 850 for the names of the test.
class TestCollation final : public UnicodeCollation {
 public:
  void StrUpr(std::u16string& s) override {
    for (char16_t& c : s)
      if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7)) c = char16_t(c - 0x20);
  }
  bool FatToStr(const uint8_t* fat, size_t size, std::u16string& text) override {
    text.clear();
    for (size_t i = 0; i < size; ++i) {
      const char16_t c = Decode(fat[i]);
      if (c == 0) return false;
      text.push_back(c);
    }
    return true;
  }
  bool StrToFat(const std::u16string& text, std::string& fat) override {
    fat.clear();
    for (char16_t c : text) {
      int b = -1;
      for (int v = 0; v < 256 && b < 0; ++v)
        if (Decode(uint8_t(v)) == c) b = v;
      if (b < 0) return false;
      fat.push_back(char(b));
    }
    return true;
  }

 private:
  static char16_t Decode(uint8_t b) {
    if (b < 0x80) return char16_t(b);
    switch (b) {
      case 0x9A: return u'\u00DC';  // Ü
      case 0xD8: return u'\u00CF';  // Ï
      case 0x81: return u'\u00FC';  // ü
      case 0x8B: return u'\u00EF';  // ï
      default: return 0;
    }
  }
};

class PartitionRoad : public ::testing::Test {
 protected:
  void SetUp() override {
    fw_.blocks = &blocks_;
    fw_.diskRoot = dir_ / "own";
    ASSERT_TRUE(fs_test::Run("mkdir -p '" + (dir_ / "own/boot") + "'"));
    WriteFile(dir_ / "own/boot/loader-side.txt", "own device");
    // The FAT partition: made on its own, then placed into the disk.
    const std::string part = dir_ / "part.img";
    ASSERT_TRUE(MakeFat(part, FatLayout{16, 4, 512, 16384}));
    WriteTree(dir_ / "src", {{"boot/", ""},
                             {"boot/vmlinuz", kernel_},
                             {"boot/initrd.img", initrd_},
                             {"Ünï.txt", "non-ASCII"}});
    ASSERT_TRUE(CopyTree(part, dir_ / "src"));
    image_ = dir_ / "disk.img";
    ASSERT_TRUE(fs_test::Run("truncate -s 40M '" + image_ + "' && sgdisk -n 1:2048:+16M -t 1:0700 -u 1:" +
                             kBootGuid + " -n 2:0:+8M -u 2:" + kEmptyGuid + " '" + image_ +
                             "' && dd if='" + part + "' of='" + image_ + "' bs=512 seek=2048 conv=notrunc"));
    ASSERT_TRUE(blocks_.AddDiskImage(image_).IsSuccess());
    ASSERT_TRUE(Common::TextToGuid(kBootGuid, boot_));
    ASSERT_TRUE(Common::TextToGuid(kEmptyGuid, empty_));
  }
  void TearDown() override { SetUnicodeCollation(nullptr); }

  // The error that GetFile throws.
  Common::Error Failure(EfiLoader::Volumes& v, const Common::GUID& guid, const std::u16string& path) {
    try {
      v.GetFile(guid, path);
    } catch (const Common::Error& e) {
      return e;
    }
    ADD_FAILURE() << "no error for " << test_util::Narrow(path);
    return Common::Error();
  }

  TempDir dir_;
  EfiLoader::Sim::SimFirmware fw_;
  EfiLoader::Sim::ScopedFirmware scoped_{fw_};
  EfiLoader::Sim::SimBlocks blocks_;
  std::string image_;
  Common::GUID boot_{}, empty_{};
  const std::string kernel_ = Pattern(300000, 1);
  const std::string initrd_ = Pattern(123457, 2);
};

}  // namespace

TEST_F(PartitionRoad, FilesOfAPartitionAreReadByItsGuid) {
  EfiLoader::Volumes volumes;
  std::shared_ptr<ri_file> kernel = volumes.GetFile(boot_, u"/boot/vmlinuz");
  ASSERT_NE(kernel, nullptr);
  EXPECT_TRUE(ReadAll(*kernel) == kernel_);
  // Either separator and any case: the path goes to the driver as it is.
  std::shared_ptr<ri_file> initrd = volumes.GetFile(boot_, u"\\BOOT\\Initrd.IMG");
  EXPECT_TRUE(ReadAll(*initrd) == initrd_);
  // One volume is mounted once: the second file needed no new disk.  (The
  // whole disk is only probed, and closed at once.)
  EXPECT_EQ(volumes.MountedCount(), 1u);
  ASSERT_EQ(blocks_.devices.size(), 3u);
  EXPECT_EQ(blocks_.devices[1]->opensTotal, 1);
  EXPECT_EQ(blocks_.devices[1]->openNow, 1);
  EXPECT_EQ(blocks_.devices[0]->openNow, 0);
}

TEST_F(PartitionRoad, TheLoadersOwnDeviceTakesTheZeroGuidWithBackslashes) {
  EfiLoader::Volumes volumes;
  std::shared_ptr<ri_file> own = volumes.GetFile(Common::GUID{}, u"/boot/loader-side.txt");
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(ReadAll(*own), "own device");
  EXPECT_EQ(volumes.MountedCount(), 0u);
}

TEST_F(PartitionRoad, EachFailureIsReportedWithTheLoadersTextsAndCauses) {
  EfiLoader::Volumes volumes;
  Common::GUID missing = boot_;
  missing.Data4[7] ^= 1;
  Common::Error e = Failure(volumes, missing, u"/boot/vmlinuz");
  EXPECT_EQ(e.Code(), CannotGetFileFromPartition);
  EXPECT_EQ(test_util::Narrow(e.Message()),
            "Cannot get file \"/boot/vmlinuz\" from the partition with GUID 5B1D93A2-0C47-4E34-9C3F-2D8E6A7B1C41.");
  EXPECT_EQ(e.Cause().Code(), FailedToOpenVolumeByGuid);
  EXPECT_EQ(test_util::Narrow(e.Cause().Message()), "Failed to open the volume by GUID.");
  EXPECT_STREQ(e.Function(), "GetFile");
  EXPECT_STREQ(e.Cause().Function(), "GetFile");
  EXPECT_EQ(e.Cause().Cause().Code(), 0x10D00Eu);  // "Failed to find."

  e = Failure(volumes, empty_, u"/boot/vmlinuz");
  EXPECT_EQ(e.Cause().Code(), MountFailed);
  EXPECT_STREQ(e.Cause().Function(), "GetFile");
  EXPECT_EQ(test_util::Narrow(e.Cause().Message()), "Failed to mount the partition.");

  e = Failure(volumes, boot_, u"/boot/missing");
  EXPECT_EQ(e.Cause().Code(), FailedToOpenFile);
  EXPECT_EQ(e.Cause().Cause().Code(), FileNotFound);
  e = Failure(volumes, boot_, u"/nodir/vmlinuz");
  EXPECT_EQ(e.Cause().Code(), FailedToOpenFile);
  EXPECT_EQ(e.Cause().Cause().Code(), FileNotFound);

  e = Failure(volumes, boot_, u"D:/boot/vmlinuz");
  EXPECT_EQ(e.Cause().Code(), FailedToOpenDirectory);
  EXPECT_EQ(e.Cause().Cause().Code(), OpenError);

  // What the loader holds, nobody opens again while it stands.
  std::shared_ptr<ri_file> held = volumes.GetFile(boot_, u"/boot/vmlinuz");
  e = Failure(volumes, boot_, u"/boot/vmlinuz");
  EXPECT_EQ(e.Cause().Code(), FailedToOpenFile);
  EXPECT_EQ(e.Cause().Cause().Code(), OpenError);
  held.reset();
  EXPECT_NE(volumes.GetFile(boot_, u"/boot/vmlinuz"), nullptr);
}

TEST_F(PartitionRoad, TheFirmwaresCollationDecidesNamesBeyondAscii) {
  {
    EfiLoader::Volumes volumes;
    EXPECT_EQ(Failure(volumes, boot_, u"/\u00FCn\u00EF.TXT").Cause().Code(), FailedToOpenFile);
    EXPECT_NE(volumes.GetFile(boot_, u"/\u00DCn\u00EF.txt"), nullptr);  // the exact long name
  }
  TestCollation collation;
  blocks_.collation = &collation;
  EfiLoader::Volumes volumes;
  std::shared_ptr<ri_file> f = volumes.GetFile(boot_, u"/\u00FCn\u00EF.TXT");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(ReadAll(*f), "non-ASCII");
  // The short name's OEM bytes become text through the service too.
  std::shared_ptr<rio_dir> root;
  ASSERT_TRUE(volumes.OpenRoot(boot_, root).IsSuccess());
  std::unique_ptr<i_dir::iterator> it(root->GetIterator(u"\u00DCN\u00CF.TXT"));
  ASSERT_NE(it, nullptr);
  ASSERT_NE(it->ShortName(), nullptr);
  EXPECT_EQ(std::u16string(it->ShortName()), u"\u00DCN\u00CF.TXT");
}

TEST(GuidOrder, FieldsCompareAsNumbersAndTheLastEightBytesBigEndian) {
  EfiLoader::GuidOrder less;
  Common::GUID a{}, b{};
  a.Data1 = 0x00000100;
  b.Data1 = 0x000000FF;  // little-endian bytes would say otherwise
  EXPECT_TRUE(less(b, a));
  a = b = Common::GUID{};
  a.Data4[0] = 1;
  b.Data4[7] = 0xFF;
  EXPECT_TRUE(less(b, a));
  EXPECT_FALSE(less(a, a));
  a = b = Common::GUID{};
  a.Data3 = 2;
  b.Data2 = 1;
  EXPECT_TRUE(less(a, b));
}
