// Reading archives: real ones from the cpio tool (plain, behind gzip and
// xz, concatenated), the filter and the copy rules, and damaged headers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "file/buf_ifile.h"
#include "file/external_tools.h"
#include "file/fake_streams.h"
#include "file/gzipfile.h"
#include "file/memfile.h"
#include "file/xzfile.h"
#include "linex/ramdisk.h"
#include "ramdisk/cpio_builder.h"
#include "test_util.h"

using namespace LinuxEx;
using namespace Common::Codes;
using test_util::CpioBytes;
using test_util::CpioEntry;
using test_util::CpioTrailer;
using test_util::RecordingSink;
using test_util::RunFilter;
using test_util::ThrownCode;

namespace {

class Collect final : public InputFilter {
 public:
  explicit Collect(std::vector<RamdiskNode>* nodes, std::string refuse = "")
      : nodes_(nodes), refuse_(std::move(refuse)) {}
  Common::Error Filter(const RamdiskNode& node) override {
    nodes_->push_back(node);
    if (!refuse_.empty() && node.name == refuse_)
      return Common::MakeError(ERROR_HERE, RamdiskUnexpectedNode);
    return Common::Error();
  }

 private:
  std::vector<RamdiskNode>* nodes_;
  std::string refuse_;
};

// Walks `archive` (from any input) and gives the names the filter saw, the
// trailers left out.
std::vector<std::string> Walk(i_file& input, std::vector<RamdiskNode>* nodes = nullptr) {
  std::vector<RamdiskNode> local;
  if (!nodes) nodes = &local;
  auto processor = CreateRamdiskProcessor(&input, nullptr, false);
  std::unique_ptr<InputFilter> filter = std::make_unique<Collect>(nodes);
  processor->SetFilter(filter);
  EXPECT_EQ(filter, nullptr);
  processor->Commit(false, false);
  std::vector<std::string> names;
  for (const auto& n : *nodes)
    if (n.name != "TRAILER!!!") names.push_back(n.name);
  return names;
}

std::vector<std::string> WalkBytes(const std::string& archive) {
  buf_ifile<unsigned char> in(archive.data(), archive.size());
  return Walk(in);
}

uint32_t WalkCode(const std::string& archive) {
  return ThrownCode([&] { WalkBytes(archive); });
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  size_t at = 0;
  for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1)
    out.push_back(text.substr(at, nl - at));
  return out;
}

// A small tree packed by the real cpio tool, with one of each node type
// that an unprivileged user can make.
struct RealArchive {
  test_util::TempDir dir;
  std::string archive;
  std::string listing;
  RealArchive() {
    const std::string root = dir / "root";
    const std::string setup =
        "mkdir -p '" + root + "/etc/ssl' '" + root + "/bin' && cd '" + root +
        "' && printf 'rescue\\n' >etc/hostname && printf '12345' >etc/five && "
        "head -c 70000 /dev/urandom >bin/blob && ln -s ../etc/hostname bin/link && "
        "mkfifo fifo && chmod 0750 etc/ssl && find . | sort >'" + (dir / "list") + "'";
    EXPECT_EQ(std::system(setup.c_str()), 0);
    archive = RunFilter("cd '" + root + "' && cpio -o -H newc --quiet <'" + (dir / "list") + "'", "");
    listing = RunFilter("cpio -t --quiet", archive);
  }
};

}  // namespace

TEST(RamdiskProcessor, SeesEveryNodeTheCpioToolListsWithItsAttributes) {
  RealArchive real;
  std::vector<RamdiskNode> nodes;
  buf_ifile<unsigned char> in(real.archive.data(), real.archive.size());
  EXPECT_EQ(Walk(in, &nodes), Lines(real.listing));
  for (const auto& n : nodes) {
    if (n.name == "etc/ssl") {
      EXPECT_EQ(n.type, kDirectory);
      EXPECT_EQ(n.mode, 0750u);
    } else if (n.name == "bin/link") {
      EXPECT_EQ(n.type, kSymbolicLink);
      EXPECT_EQ(n.filesize, 15u);
    } else if (n.name == "fifo") {
      EXPECT_EQ(n.type, kFifo);
    } else if (n.name == "bin/blob") {
      EXPECT_EQ(n.type, kRegularFile);
      EXPECT_EQ(n.filesize, 70000u);
    }
  }
}

TEST(RamdiskProcessor, ReadsThroughGzipAndXzAsTheLoaderDoes) {
  RealArchive real;
  const auto expected = Lines(real.listing);
  for (const char* flags : {"-1", "-9"}) {
    const std::string gz = RunFilter(std::string("gzip -c ") + flags, real.archive);
    buf_ifile<unsigned char> raw(gz.data(), gz.size());
    i_gzip_file gzip(raw);
    EXPECT_EQ(Walk(gzip), expected) << flags;
  }
  for (const char* check : {"none", "crc32", "crc64", "sha256"}) {
    const std::string xz = RunFilter(std::string("xz -c --check=") + check, real.archive);
    buf_ifile<unsigned char> raw(xz.data(), xz.size());
    XZDecompressor decoder(raw);
    EXPECT_EQ(Walk(decoder), expected) << check;
  }
}

TEST(RamdiskProcessor, ConcatenatedArchivesReadAsOneWithOneTrailerOut) {
  RealArchive real;
  const std::string second = CpioBytes({"extra/file", 0100600, "data"}) + CpioTrailer();
  const std::string both = real.archive + second;  // the tool pads to 512 bytes
  auto expected = Lines(real.listing);
  expected.push_back("extra/file");
  EXPECT_EQ(WalkBytes(both), expected);

  buf_ifile<unsigned char> in(both.data(), both.size());
  RecordingSink out;
  CreateRamdiskProcessor(&in, &out, false)->Commit(false, true);
  const std::string relisted = RunFilter("cpio -t --quiet", out.data);
  EXPECT_EQ(Lines(relisted), expected);
  size_t trailers = 0;
  for (size_t at = 0; (at = out.data.find("TRAILER!!!", at)) != std::string::npos; ++at) ++trailers;
  EXPECT_EQ(trailers, 1u);
}

TEST(RamdiskProcessor, FormatEdgesThatAreAccepted) {
  const std::string file = CpioBytes({"a", 0100644, "x"});
  EXPECT_EQ(WalkBytes(""), std::vector<std::string>{});                                  // empty input
  EXPECT_EQ(WalkBytes(file), std::vector<std::string>{"a"});                            // no trailer
  EXPECT_EQ(WalkBytes(CpioTrailer() + std::string(4, '\0')), std::vector<std::string>{});
  EXPECT_EQ(WalkBytes(CpioTrailer() + std::string(8, '\0') + file), std::vector<std::string>{"a"});
  // An empty name ends the input; what follows is not read.
  EXPECT_EQ(WalkBytes(file + CpioBytes({"", 0}) + "garbage"), std::vector<std::string>{"a"});
  CpioEntry lower{"lower", 0100644, "abcdefghijklmnopq"};
  lower.lowerCase = true;
  lower.ino = 0xabcdef;
  EXPECT_EQ(WalkBytes(CpioBytes(lower)), std::vector<std::string>{"lower"});
  // The trailer is told by its normal form.
  EXPECT_EQ(WalkBytes(CpioBytes({"./TRAILER!!!", 0}) + std::string(4, '\0') + file),
            (std::vector<std::string>{"./TRAILER!!!", "a"}));
}

TEST(RamdiskProcessor, DamagedArchivesAreCorrupted) {
  const std::string good = CpioBytes({"name", 0100644, "abcd"});
  auto with = [&](size_t at, const std::string& bytes) {
    std::string s = good;
    s.replace(at, bytes.size(), bytes);
    return s;
  };
  CpioEntry hugeName{"n", 0100644};
  hugeName.namesize = 0xffffffff;
  CpioEntry longName{"n", 0100644};
  longName.namesize = kMaxNameSize + 1;
  CpioEntry zeroName{"n", 0100644};
  zeroName.namesize = 0;
  CpioEntry noZero{"name", 0100644};
  noZero.namesize = 3;  // byte namesize-1 is 'm', not 0
  CpioEntry embedded{std::string("na\0me", 5), 0100644};
  CpioEntry trailerSize{"TRAILER!!!", 0, "x"};
  CpioEntry badType{"dev/x", 0xe1a4};
  CpioEntry noType{"plain", 0644};
  CpioEntry hugeFile{"big", 0100644, "tiny"};
  hugeFile.filesize = 0xffffffff;

  struct Case {
    const char* what;
    std::string bytes;
    uint32_t code;
  } cases[] = {
      {"bad magic", with(0, "070702"), Corrupted},
      {"old binary magic", with(0, "\xc7\x71"), Corrupted},
      {"non-hex digit", with(6 + 8 * 6 + 3, "g"), Corrupted},
      {"space in a number", with(6 + 8 * 1, " "), Corrupted},
      {"short header", good.substr(0, 109), Corrupted},
      {"namesize 0", CpioBytes(zeroName), Corrupted},
      {"namesize 0xffffffff", CpioBytes(hugeName), Corrupted},
      {"namesize above the limit", CpioBytes(longName), Corrupted},
      {"name without its closing 0", CpioBytes(noZero), Corrupted},
      {"name with an embedded 0", CpioBytes(embedded), Corrupted},
      {"name cut off", good.substr(0, 112), EndOfFile},
      {"data cut off", good.substr(0, 116 + 2), Corrupted},
      {"filesize beyond the input", CpioBytes(hugeFile), Corrupted},
      {"padding cut off", CpioBytes({"five", 0100644, "12345"}).substr(0, 116 + 6), Corrupted},
      {"trailer with data", CpioBytes(trailerSize), Corrupted},
      {"unknown type nibble", CpioBytes(badType), Corrupted},
      {"no type bits", CpioBytes(noType), Corrupted},
      {"3 zero bytes behind the trailer", CpioTrailer() + std::string(3, '\0'), Corrupted},
      {"5 zero bytes between archives", CpioTrailer() + std::string(5, '\0') + good, Corrupted},
      {"compressed archive behind a plain one", CpioTrailer() + "\x1f\x8b\x08" + std::string(120, 'x'),
       Corrupted},
  };
  for (const auto& c : cases) EXPECT_EQ(WalkCode(c.bytes), c.code) << c.what;
}

TEST(RamdiskProcessor, PaddingCutOffKeepsTheEndOfFileAsCause) {
  const std::string cut = CpioBytes({"five", 0100644, "12345"}).substr(0, 116 + 6);
  try {
    WalkBytes(cut);
    FAIL() << "accepted";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), Corrupted);
    EXPECT_EQ(e.Cause().Code(), EndOfFile);
  }
}

TEST(RamdiskProcessor, InputAndFilterErrorsKeepTheirOwnCode) {
  const std::string archive = CpioBytes({"a", 0100644, "1"}) + CpioBytes({"b", 0100644, "2"});
  test_util::ScriptedInput failing(archive);
  failing.failAt = 2;
  EXPECT_EQ(ThrownCode([&] { Walk(failing); }), ReadError);

  buf_ifile<unsigned char> in(archive.data(), archive.size());
  std::vector<RamdiskNode> seen;
  auto processor = CreateRamdiskProcessor(&in, nullptr, false);
  std::unique_ptr<InputFilter> filter = std::make_unique<Collect>(&seen, "a");
  processor->SetFilter(filter);
  EXPECT_EQ(ThrownCode([&] { processor->Commit(false, false); }), RamdiskUnexpectedNode);
  EXPECT_EQ(seen.size(), 1u);
}

TEST(RamdiskProcessor, RemoveKeepReplaceAndNormalNames) {
  const std::string archive = CpioBytes({"dir", 040755}) + CpioBytes({"dir/keep", 0100644, "k"}) +
                              CpioBytes({"dir/drop", 0100644, "d"}) +
                              CpioBytes({"./a//b/../c", 0100644, "old c"}) +
                              CpioBytes({"top", 0100644, "t"}) + CpioTrailer();
  auto run = [&](auto setup) {
    buf_ifile<unsigned char> in(archive.data(), archive.size());
    RecordingSink out;
    auto processor = CreateRamdiskProcessor(&in, &out, false);
    setup(*processor);
    processor->Commit(false, true);
    return out.data;
  };
  auto names = [](const std::string& a) { return Lines(RunFilter("cpio -t --quiet", a)); };

  EXPECT_EQ(names(run([](RamdiskProcessor& p) {
              p.Remove("dir/*");
              p.Keep("dir/keep");
            })),
            (std::vector<std::string>{"dir", "dir/keep", "a/c", "top"}));
  EXPECT_EQ(names(run([](RamdiskProcessor& p) {
              p.Remove("*");
              p.AddFile("new", "n", 1);
            })),
            (std::vector<std::string>{"new"}));
  const std::string replaced = run([](RamdiskProcessor& p) { p.AddFile("a/c", "new c", 5); });
  EXPECT_EQ(names(replaced), (std::vector<std::string>{"dir", "dir/keep", "dir/drop", "top", "a/c"}));
  test_util::TempDir dir;
  RunFilter("cd '" + dir.Path() + "' && cpio -i -d --quiet", replaced);
  EXPECT_EQ(test_util::ReadFile(dir / "a/c"), "new c");

  buf_ifile<unsigned char> in(archive.data(), archive.size());
  auto processor = CreateRamdiskProcessor(&in, nullptr, false);
  EXPECT_EQ(ThrownCode([&] { processor->Remove("/./"); }), InvalidUsage);
  EXPECT_EQ(ThrownCode([&] { processor->Extract("", nullptr); }), InvalidUsage);
}

TEST(RamdiskProcessor, ExtractCapturesDataWithoutAnOutput) {
  RealArchive real;
  auto captured = std::shared_ptr<Common::MemoryFile>(Common::CreateMemoryFile());
  captured->Write("stale contents longer than the file", 35);
  buf_ifile<unsigned char> in(real.archive.data(), real.archive.size());
  auto processor = CreateRamdiskProcessor(&in, nullptr, false);
  processor->Extract("/etc/./hostname", captured);
  processor->Commit(false, false);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(captured->GetData()), 7), "rescue\n");
}

TEST(RamdiskProcessor, RequestsWithoutInputAreInvalid) {
  RecordingSink out;
  auto processor = CreateRamdiskProcessor(nullptr, &out, false);
  processor->Keep("x");
  EXPECT_EQ(ThrownCode([&] { processor->Commit(false, true); }), ReadError);

  auto plain = CreateRamdiskProcessor(nullptr, &out, false);
  plain->AddDir("only");
  plain->Commit(false, true);
  EXPECT_EQ(Lines(RunFilter("cpio -t --quiet", out.data)), std::vector<std::string>{"only"});
}
