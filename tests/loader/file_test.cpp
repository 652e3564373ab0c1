#include <gtest/gtest.h>

#include <cstring>

#include "common/error_codes.h"
#include "efi/file.h"
#include "sim_fixture.h"

using namespace EfiLoader;
using loader_test::SimTest;

namespace {

std::string ReadAll(ri_file& f) {
  std::string out;
  char buf[4096];
  for (;;) {
    uint64_t got = 0;
    f.Read(buf, sizeof buf, got);
    if (f.HasError() || got == 0) break;
    out.append(buf, got);
  }
  return out;
}

uint32_t CodeOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const Common::Error& e) {
    return e.Code();
  }
  return 0;
}

// ------------------------------------------------------------ DHCP options

std::vector<uint8_t> Bootp(bool magic) {
  std::vector<uint8_t> p(300, 0);
  const char* file = "pxe/loader.efi";
  std::memcpy(p.data() + 108, file, std::strlen(file));
  if (magic) p[236] = 99, p[237] = 130, p[238] = 83, p[239] = 99;
  return p;
}

std::string Option(const uint8_t* data, uint32_t len) {
  return std::string(reinterpret_cast<const char*>(data), len);
}

TEST(DhcpOption, WithoutMagicOnlyTheBootFileComesFromTheFileField) {
  auto p = Bootp(false);
  const uint8_t* data = nullptr;
  ASSERT_EQ(GetDhcpOption(data, 67, p), 128u);
  EXPECT_EQ(data, p.data() + 108);
  EXPECT_EQ(GetDhcpOption(data, 54, p), 0u);
}

TEST(DhcpOption, OptionsListPadsAndEnd) {
  auto p = Bootp(true);
  p.resize(240);
  p.insert(p.end(), {0, 0, 54, 4, 10, 0, 2, 2, 67, 5, 'a', '.', 'e', 'f', 'i', 255, 13, 2, 1, 1});
  const uint8_t* data = nullptr;
  ASSERT_EQ(GetDhcpOption(data, 54, p), 4u);
  EXPECT_EQ(data[0], 10);
  ASSERT_EQ(GetDhcpOption(data, 67, p), 5u);
  EXPECT_EQ(Option(data, 5), "a.efi");
  EXPECT_EQ(GetDhcpOption(data, 13, p), 0u) << "options behind the end mark count";
}

TEST(DhcpOption, ZeroLengthMatchDoesNotAnswer) {
  auto p = Bootp(true);
  p.resize(240);
  p.insert(p.end(), {67, 0, 255});
  const uint8_t* data = nullptr;
  // Falls back on the file field.
  ASSERT_EQ(GetDhcpOption(data, 67, p), 128u);
  EXPECT_EQ(Option(data, 14), "pxe/loader.efi");
}

TEST(DhcpOption, TruncatedOptionEndsTheScan) {
  auto p = Bootp(true);
  p.resize(240);
  p.insert(p.end(), {54, 200, 1, 2, 3});  // length runs past the packet
  const uint8_t* data = nullptr;
  EXPECT_EQ(GetDhcpOption(data, 54, p), 0u);
  EXPECT_EQ(data, nullptr);
}

TEST(DhcpOption, LengthPastTheLimitEndsTheScan) {
  auto p = Bootp(true);
  p.resize(240);
  // Pads up to 2 bytes before the 1232-byte limit, then an option that
  // crosses it even though the packet itself is longer.
  p.insert(p.end(), 1230, 0);
  p.insert(p.end(), {54, 4, 1, 2, 3, 4, 255});
  const uint8_t* data = nullptr;
  EXPECT_EQ(GetDhcpOption(data, 54, p), 0u);
}

TEST(DhcpOption, OverloadIntoFileAndSname) {
  auto p = Bootp(true);
  std::memset(p.data() + 108, 0, 128);
  std::memset(p.data() + 44, 0, 64);
  const uint8_t fileOpts[] = {66, 3, 's', 'r', 'v', 255};
  std::memcpy(p.data() + 108, fileOpts, sizeof fileOpts);
  const uint8_t snameOpts[] = {0, 67, 4, 'b', '.', 'e', 'f', 255};
  std::memcpy(p.data() + 44, snameOpts, sizeof snameOpts);
  p.resize(240);
  p.insert(p.end(), {52, 1, 3, 255});
  const uint8_t* data = nullptr;
  ASSERT_EQ(GetDhcpOption(data, 66, p), 3u);
  EXPECT_EQ(Option(data, 3), "srv");
  ASSERT_EQ(GetDhcpOption(data, 67, p), 4u);
  EXPECT_EQ(Option(data, 4), "b.ef");
  // With the file field holding options, it is no boot-file fallback.
  p[242] = 1;
  std::memset(p.data() + 44, 0, 64);
  EXPECT_EQ(GetDhcpOption(data, 67, p), 0u);
}

TEST(DhcpOption, ShortPacketsAreSafe) {
  const uint8_t* data = nullptr;
  for (size_t n : {0, 1, 100, 200, 239, 240, 241}) {
    std::vector<uint8_t> p(n, 0xFF);
    EXPECT_EQ(GetDhcpOption(data, 54, p), 0u) << n;
    GetDhcpOption(data, 67, p);  // may answer from the file field when it exists
    if (n < 236) EXPECT_EQ(data, nullptr) << n;
  }
}

// ------------------------------------------------------------ own path

class SelfPath : public SimTest {};

TEST_F(SelfPath, JoinsFileNodesAndTrimsSeparators) {
  fw.loaderFilePath = Sim::SimFirmware::FilePathOf({u"\\EFI", u"\\BOOT\\", u"\\LOADER.EFI"});
  EXPECT_EQ(GetSelfPath(), u"\\EFI\\BOOT\\LOADER.EFI");
}

TEST_F(SelfPath, NonFileNodeOrNoNameIsARuntimeError) {
  auto dp = Sim::SimFirmware::FilePathOf({u"\\EFI\\x.efi"});
  dp.insert(dp.begin(), {1, 4, 8, 0, 0, 0, 0, 0});  // a vendor-type node first
  fw.loaderFilePath = dp;
  EXPECT_EQ(CodeOf([] { GetSelfPath(); }), 0x1480001u);
  ResetSelfPath();
  fw.loaderFilePath = Sim::SimFirmware::FilePathOf({});
  EXPECT_EQ(CodeOf([] { GetSelfPath(); }), 0x1480001u);
  ResetSelfPath();
  fw.loaderFilePath = {4, 4, 0xFF, 0};  // node longer than the path
  EXPECT_EQ(CodeOf([] { GetSelfPath(); }), 0x1480001u);
}

TEST_F(SelfPath, NetworkBootTakesOption67) {
  fw.hasPxe = true;
  fw.dhcpAck = DhcpPacket({67, 12, 'r', 'e', 's', 'c', 'u', 'e', '.', 'e', 'f', 'i', 0, 'x'});
  EXPECT_EQ(GetSelfPath(), u"rescue.efi");
}

TEST_F(SelfPath, EmptyBootFileFallsBackToTheDevicePath) {
  fw.hasPxe = true;
  fw.dhcpAck = DhcpPacket({});
  std::memset(fw.dhcpAck.data() + 108, 0, 128);
  EXPECT_EQ(GetSelfPath(), u"\\EFI\\BOOT\\BOOTX64.EFI");
}

// ------------------------------------------------------------ opening

class LoaderFiles : public SimTest {};

TEST_F(LoaderFiles, FileSystemRoadIsCaseInsensitiveAndRootRelative) {
  disk.Write("EFI/BOOT/bootx64.xml", "<a/>");
  auto f = OpenLoaderFile(u"\\efi\\boot\\BOOTX64.XML");
  ASSERT_TRUE(f);
  EXPECT_EQ(ReadAll(*f), "<a/>");
  // A relative path goes to the root's Open unchanged: relative to the root.
  EXPECT_EQ(CodeOf([] { OpenLoaderFile(u"bootx64.xml"); }), 0x40007u);
}

TEST_F(LoaderFiles, MissingFileOrEmptyPathOrDirectory) {
  disk.Write("EFI/BOOT/x", "1");
  EXPECT_EQ(CodeOf([] { OpenLoaderFile(u"\\nothere.xml"); }), 0x40007u);
  EXPECT_EQ(CodeOf([] { OpenLoaderFile(u""); }), 0x40007u);
  EXPECT_EQ(CodeOf([] { OpenLoaderFile(u"\\EFI\\BOOT"); }), 0x40007u);
  EXPECT_EQ(CodeOf([] { OpenLoaderEfiFile(u"\\EFI", kFileModeReadWrite); }), 0x40007u);
}

TEST_F(LoaderFiles, TftpRoadWinsWhenPxeAnswers) {
  const uint8_t server[4] = {10, 0, 2, 2};
  fw.hasPxe = true;
  fw.dhcpAck = DhcpPacket({67, 4, 'a', '.', 'e', 'f'}, server);
  tftp.Write("sub/cfg.xml", "from tftp");
  disk.Write("sub/cfg.xml", "from disk");
  auto f = OpenLoaderFile(u"sub/cfg.xml");
  EXPECT_EQ(ReadAll(*f), "from tftp");
}

TEST_F(LoaderFiles, TftpWithoutServerAddressFallsToTheDisk) {
  fw.hasPxe = true;
  fw.dhcpAck = DhcpPacket({67, 4, 'a', '.', 'e', 'f'});  // siaddr 0, no option 54
  tftp.Write("cfg.xml", "from tftp");
  disk.Write("cfg.xml", "from disk");
  EXPECT_EQ(ReadAll(*OpenLoaderFile(u"cfg.xml")), "from disk");
  // Option 54 supplies the server when siaddr is 0.
  fw.dhcpAck = DhcpPacket({54, 4, 10, 0, 2, 2});
  EXPECT_EQ(ReadAll(*OpenLoaderFile(u"cfg.xml")), "from tftp");
}

// Booted by PXE: the card's device has the PXE protocol and a load-file
// service that serves its boot file only, and no file system.
TEST_F(LoaderFiles, NetworkBootReadsWholeFilesAndReportsAMissingOneAsOpenLoaderFile) {
  const uint8_t server[4] = {10, 0, 2, 2};
  fw.hasPxe = true;
  fw.hasFileSystem = false;
  fw.hasLoadFile = true;
  fw.loadFileRefusal = Status::Unsupported;
  fw.dhcpAck = DhcpPacket({67, 20, 'r', 'e', 's', 'c', 'u', 'e', '/', 'r', 'e', 's', 'c', 'u', 'e',
                           '.', 'v', '2', '.', 'e', 'f', 'i'},
                          server);
  // Bigger than one piece of any firmware read, and not a run of one byte.
  std::string kernel(5 * 1024 * 1024 + 7, '\0');
  for (size_t i = 0; i < kernel.size(); ++i) kernel[i] = static_cast<char>(i * 131 / 7);
  tftp.Write("vmlinuz", kernel);
  tftp.Write("rescue\\extra.xz", "named with a backslash");
  disk.Write("vmlinuz-missing", "never reached: no file system on the card");

  auto f = OpenLoaderFile(u"vmlinuz");
  EXPECT_EQ(f->GetSize(), static_cast<int64_t>(kernel.size()));
  EXPECT_TRUE(ReadAll(*f) == kernel);
  // The name goes to the server byte for byte: no separator is turned.
  EXPECT_EQ(ReadAll(*OpenLoaderFile(u"rescue\\extra.xz")), "named with a backslash");

  try {
    OpenLoaderFile(u"vmlinuz-missing");
    ADD_FAILURE() << "a file that is on no road was opened";
  } catch (const Common::Error& e) {
    // The report is that of the last road tried, the card's refusal.
    EXPECT_EQ(e.Code(), 0x40007u);
    EXPECT_STREQ(e.Function(), "OpenLoaderFile");
    EXPECT_EQ(e.Cause().Code(), 1u) << "the firmware's status is chained";
  }
}

TEST_F(LoaderFiles, LoadFileRoadIsRelativeToTheLoader) {
  fw.hasFileSystem = false;
  fw.hasLoadFile = true;
  disk.Write("EFI/BOOT/conf.xml", "beside the loader");
  disk.Write("top.xml", "at the root");
  EXPECT_EQ(ReadAll(*OpenLoaderFile(u"conf.xml")), "beside the loader");
  EXPECT_EQ(ReadAll(*OpenLoaderFile(u"\\top.xml")), "at the root");
  EXPECT_EQ(CodeOf([] { OpenLoaderFile(u"missing.xml"); }), 0x40007u);
}

TEST_F(LoaderFiles, NoRoadAtAllReportsTheFileSystemError) {
  fw.hasFileSystem = false;
  const uint32_t code = CodeOf([] { OpenLoaderFile(u"\\x"); });
  EXPECT_EQ(code, 0x40007u);
}

TEST(DevicePath, FileNodesForDirectoryAndName) {
  const auto dp = MakeDevicePath(u"\\EFI\\a.efi");
  const std::vector<uint8_t> expected = {
      4, 4, 14, 0, '\\', 0, 'E', 0, 'F', 0, 'I', 0, 0, 0,  // "\EFI"
      4, 4, 16, 0, 'a', 0, '.', 0, 'e', 0, 'f', 0, 'i', 0, 0, 0,
      0x7f, 0xff, 4, 0};
  EXPECT_EQ(dp, expected);
  const std::vector<uint8_t> bare = {4, 4, 8, 0, 'x', 0, 0, 0, 0x7f, 0xff, 4, 0};
  EXPECT_EQ(MakeDevicePath(u"x"), bare);
}

// ------------------------------------------------------------ EfiFile

// Counts the firmware's Read calls and answers from a buffer.
class CountingFile : public FirmwareFile {
 public:
  explicit CountingFile(std::string data) : data_(std::move(data)) {}
  EfiStatus Read(void* buffer, uint64_t& size) override {
    ++reads;
    const uint64_t left = pos_ < data_.size() ? data_.size() - pos_ : 0;
    size = std::min(size, left);
    std::memcpy(buffer, data_.data() + pos_, size);
    pos_ += size;
    return failRead ? Status::DeviceError : Status::Success;
  }
  EfiStatus Write(const void*, uint64_t&) override { return Status::WriteProtected; }
  EfiStatus GetPosition(uint64_t& p) override {
    p = pos_;
    return Status::Success;
  }
  EfiStatus SetPosition(uint64_t p) override {
    pos_ = p == ~0ull ? data_.size() : p;
    return Status::Success;
  }
  EfiStatus Flush() override { return Status::Success; }
  EfiStatus Delete() override {
    delete this;
    return Status::Success;
  }
  EfiStatus GetInfo(uint64_t& a, uint64_t& s) override {
    a = 0;
    s = data_.size();
    return Status::Success;
  }
  EfiStatus Open(const std::u16string&, uint64_t, std::unique_ptr<FirmwareFile>&) override {
    return Status::Unsupported;
  }
  int reads = 0;
  bool failRead = false;

 private:
  std::string data_;
  uint64_t pos_ = 0;
};

TEST(EfiFileStream, LargeReadsArePiecewise) {
  auto* raw = new CountingFile(std::string(3 * 1024 * 1024 + 5, 'x'));
  EfiFile f{std::unique_ptr<FirmwareFile>(raw)};
  std::string buf(4 * 1024 * 1024, 0);
  uint64_t got = 0;
  f.Read(buf.data(), buf.size(), got);
  EXPECT_EQ(got, 3u * 1024 * 1024 + 5);
  EXPECT_EQ(raw->reads, 4) << "three full pieces and a short one";
  EXPECT_FALSE(f.HasError());
}

TEST(EfiFileStream, SeekEndTruncateAndFailures) {
  auto* raw = new CountingFile("0123456789");
  EfiFile f{std::unique_ptr<FirmwareFile>(raw)};
  EXPECT_EQ(f.SeekEnd(0), 10);
  EXPECT_EQ(f.GetPosition(), 10);
  EXPECT_EQ(f.SeekEnd(-3), 7);
  EXPECT_EQ(f.Seek(-1), -1);
  EXPECT_EQ(f.TakeError().Code(), 0x40005u);
  f.Truncate(0);
  EXPECT_EQ(f.TakeError().Code(), 0x4000Eu);
  raw->failRead = true;
  char c;
  uint64_t got = 1;
  f.Read(&c, 1, got);
  const Common::Error e = f.TakeError();
  EXPECT_EQ(e.Code(), 0x40001u);
  EXPECT_TRUE(e.Cause().IsError()) << "the firmware status is chained";
  f.Delete();
  EXPECT_FALSE(f.HasError());
  f.Read(&c, 1, got);
  EXPECT_EQ(f.TakeError().Code(), 0x40011u) << "a deleted file does not exist";
}

// ------------------------------------------------------------ move, delete, run

TEST_F(LoaderFiles, MoveReplacesTheTargetCompletely) {
  disk.Write("src.bin", "short");
  disk.Write("dst.bin", "a much longer old target");
  DeleteFile(u"\\dst.bin");
  MoveFile(u"\\src.bin", u"\\dst.bin");
  EXPECT_EQ(disk.Read("dst.bin"), "short");
  EXPECT_FALSE(disk.Exists("src.bin"));
}

TEST_F(LoaderFiles, ExecuteFileLoadsWithTheLoadersDevice) {
  disk.Write("EFI/tool.efi", std::string("MZ") + std::string(100, '\1'));
  ExecuteFile(u"\\EFI\\tool.efi");
  ASSERT_EQ(fw.started.size(), 1u);
  EXPECT_EQ(fw.started[0].contents.size(), 102u);
  EXPECT_EQ(fw.started[0].device, fw.LoaderDeviceHandle());
  EXPECT_EQ(fw.started[0].devicePath, MakeDevicePath(u"\\EFI\\tool.efi"));
  // Not an image: the firmware refuses it, and the status is chained.
  disk.Write("EFI/bad.efi", "nope");
  try {
    ExecuteFile(u"\\EFI\\bad.efi");
    FAIL() << "no error";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), 0x1480001u);
    EXPECT_TRUE(e.Cause().IsError());
  }
}

TEST_F(LoaderFiles, SecureBootNeedsBothVariables) {
  EXPECT_FALSE(IsSecureBootEnabled());
  const uint8_t one = 1, zero = 0;
  fw.SetVariable(u"SecureBoot", kGlobalVariableGuid, 6, &one, 1);
  EXPECT_FALSE(IsSecureBootEnabled()) << "SetupMode missing";
  fw.SetVariable(u"SetupMode", kGlobalVariableGuid, 6, &one, 1);
  EXPECT_FALSE(IsSecureBootEnabled()) << "in setup mode";
  fw.SetVariable(u"SetupMode", kGlobalVariableGuid, 6, &zero, 1);
  EXPECT_TRUE(IsSecureBootEnabled());
  fw.SetVariable(u"SecureBoot", kGlobalVariableGuid, 6, &zero, 1);
  EXPECT_FALSE(IsSecureBootEnabled());
}

}  // namespace
