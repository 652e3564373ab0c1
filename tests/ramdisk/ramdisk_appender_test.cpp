// Writing archives: the order, the parent directories, the padding, and
// what the real cpio tool makes of the result.
#include <gtest/gtest.h>

#include <string>

#include "common/clock.h"
#include "file/buf_ifile.h"
#include "file/external_tools.h"
#include "file/fake_streams.h"
#include "file/memfile.h"
#include "linex/ramdisk.h"
#include "ramdisk/cpio_builder.h"
#include "test_util.h"

using namespace LinuxEx;
using namespace Common::Codes;
using test_util::RecordingSink;
using test_util::RunFilter;
using test_util::ThrownCode;

namespace {

struct Listed {
  std::string name;
  uint32_t mode;  // with type bits, as in the header
  uint32_t nlink;
  uint32_t filesize;
  uint32_t rdevmajor, rdevminor;
  std::string data;
};

// Parses an archive that the writer made; the writer's own format, read
// plainly field by field.
std::vector<Listed> ParseArchive(const std::string& a) {
  std::vector<Listed> out;
  size_t at = 0;
  auto num = [&](size_t field) { return uint32_t(std::stoul(a.substr(at + 6 + 8 * field, 8), nullptr, 16)); };
  while (at + 110 <= a.size()) {
    Listed l;
    l.mode = num(1);
    l.nlink = num(4);
    l.filesize = num(6);
    l.rdevmajor = num(9);
    l.rdevminor = num(10);
    const uint32_t namesize = num(11);
    l.name = a.substr(at + 110, namesize - 1);
    at = (at + 110 + namesize + 3) & ~size_t(3);
    l.data = a.substr(at, l.filesize);
    at = (at + l.filesize + 3) & ~size_t(3);
    out.push_back(l);
  }
  return out;
}

std::vector<std::string> Names(const std::vector<Listed>& nodes) {
  std::vector<std::string> names;
  for (const auto& n : nodes) names.push_back(n.name);
  return names;
}

}  // namespace

TEST(RamdiskAppender, ParentDirectoriesComeFirstInNameOrder) {
  RecordingSink sink;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddFile("a/b/c", "xyz", 3);
  appender->AddFile("a-z", "1", 1);
  appender->AddLnk("/a/link", "b/c");
  appender->Commit(true, true);
  const auto nodes = ParseArchive(sink.data);
  EXPECT_EQ(Names(nodes),
            (std::vector<std::string>{"a", "a-z", "a/b", "a/b/c", "a/link", "TRAILER!!!"}));
  for (const auto& n : nodes) {
    if (n.name == "a" || n.name == "a/b") {
      EXPECT_EQ(n.mode, 040755u) << n.name;
      EXPECT_EQ(n.nlink, 2u) << n.name;
      EXPECT_EQ(n.filesize, 0u) << n.name;
    }
    if (n.name == "a/b/c") {
      EXPECT_EQ(n.mode, 0100644u);
      EXPECT_EQ(n.data, "xyz");
    }
    if (n.name == "a/link") {
      EXPECT_EQ(n.mode, 0120777u);
      EXPECT_EQ(n.filesize, 3u);  // the target's length, no closing 0
      EXPECT_EQ(n.data, "b/c");
    }
  }
}

TEST(RamdiskAppender, SchedulingRules) {
  {  // the second addition of a name wins
    RecordingSink sink;
    auto appender = CreateRamdiskAppender(&sink, true);
    appender->AddFile("f", "old", 3);
    appender->AddFile("./f", "newer", 5);
    appender->Commit(false, false);
    const auto nodes = ParseArchive(sink.data);
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].data, "newer");
    EXPECT_EQ(nodes[0].mode, 0100755u);  // executable flag
  }
  {  // an explicit directory is not doubled
    RecordingSink sink;
    auto appender = CreateRamdiskAppender(&sink, false);
    appender->AddDir("a");
    appender->AddFile("a/b", "", 0);
    appender->Commit(true, false);
    EXPECT_EQ(Names(ParseArchive(sink.data)), (std::vector<std::string>{"a", "a/b"}));
  }
  {  // a file where a directory is needed
    RecordingSink sink;
    auto appender = CreateRamdiskAppender(&sink, false);
    appender->AddFile("a", "", 0);
    appender->AddFile("a/b", "", 0);
    EXPECT_EQ(ThrownCode([&] { appender->Commit(true, true); }), AlreadyExists);
  }
  {  // names that normalise to nothing
    RecordingSink sink;
    auto appender = CreateRamdiskAppender(&sink, false);
    EXPECT_EQ(ThrownCode([&] { appender->AddFile("/", "", 0); }), CreateError);
    EXPECT_EQ(ThrownCode([&] { appender->AddDir("."); }), CreateError);
    EXPECT_EQ(ThrownCode([&] { appender->AddLnk("", "x"); }), CreateError);
    EXPECT_EQ(ThrownCode([&] { appender->AddDev("a/..", 1, 3, false); }), CreateError);
  }
}

TEST(RamdiskAppender, DataIsPaddedToFourBytes) {
  RecordingSink sink;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddFile("five", "12345", 5);
  appender->AddFile("four", "1234", 4);
  appender->AddFile("zero", "", 0);
  appender->Commit(false, false);
  // Each header with a 4-byte name: 110 + 5 = 115, padded to 116.
  EXPECT_EQ(sink.data.size(), (116 + 8) + (116 + 4) + 116u);
  EXPECT_EQ(sink.data.substr(116, 8), std::string("12345\0\0\0", 8));
}

TEST(RamdiskAppender, DevicesCarryTheirNumbersAndType) {
  RecordingSink sink;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddDev("dev/console", 5, 1, false);
  appender->AddDev("dev/sda", 8, 0, true);
  appender->Commit(false, false);
  const auto nodes = ParseArchive(sink.data);
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].mode, 020644u);
  EXPECT_EQ(nodes[0].rdevmajor, 5u);
  EXPECT_EQ(nodes[0].rdevminor, 1u);
  EXPECT_EQ(nodes[1].mode, 060644u);
  EXPECT_EQ(nodes[1].rdevmajor, 8u);
}

TEST(RamdiskAppender, NothingScheduledGivesATrailerAlone) {
  RecordingSink sink;
  CreateRamdiskAppender(&sink, false)->Commit(true, true);
  EXPECT_EQ(Names(ParseArchive(sink.data)), (std::vector<std::string>{"TRAILER!!!"}));
}

TEST(RamdiskAppender, StreamThatShrankBeforeCommitIsCorrupted) {
  auto file = std::shared_ptr<Common::MemoryFile>(Common::CreateMemoryFile());
  file->Write("0123456789", 10);
  file->Rewind();
  RecordingSink sink;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddFile("f", std::shared_ptr<ri_file>(file));
  file->Truncate(4);
  EXPECT_EQ(ThrownCode([&] { appender->Commit(false, true); }), Corrupted);
}

TEST(RamdiskAppender, StreamFormsCopyTheirSource) {
  test_util::ScriptedInput input("from an input stream");
  RecordingSink sink;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddFile("in", input);
  appender->Commit(false, false);
  EXPECT_EQ(ParseArchive(sink.data)[0].data, "from an input stream");

  test_util::ScriptedInput failing("x");
  failing.failAt = 1;
  EXPECT_EQ(ThrownCode([&] { appender->AddFile("bad", failing); }), ReadError);
}

TEST(RamdiskAppender, OutputErrorsAreThrownAndKeepTheSchedule) {
  RecordingSink sink;
  sink.failAt = 2;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddFile("a", "data", 4);
  EXPECT_EQ(ThrownCode([&] { appender->Commit(false, true); }), WriteError);
  EXPECT_EQ(ThrownCode([] { CreateRamdiskAppender(nullptr, false)->AddDir("x"); }), 0u);
  auto noOutput = CreateRamdiskAppender(nullptr, false);
  noOutput->AddDir("x");
  EXPECT_EQ(ThrownCode([&] { noOutput->Commit(false, true); }), WriteError);
}

TEST(RamdiskAppender, RealCpioExtractsWhatWeWrite) {
  auto previous = Common::SetClockSource([]() -> uint32_t { return 1700000000; });
  RecordingSink sink;
  auto appender = CreateRamdiskAppender(&sink, false);
  appender->AddFile("etc/hostname", "rescue\n", 7);
  appender->AddFile("etc/odd", "12345", 5);
  appender->AddLnk("bin/sh", "busybox");
  appender->AddDir("proc");
  appender->Commit(true, true);
  Common::SetClockSource(previous);

  int status = -1;
  const std::string listing = RunFilter("cpio -t --quiet", sink.data, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(listing, "bin\nbin/sh\netc\netc/hostname\netc/odd\nproc\n");
  test_util::TempDir dir;
  RunFilter("cd '" + dir.Path() + "' && cpio -i -d -m --quiet", sink.data, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(test_util::ReadFile(dir / "etc/hostname"), "rescue\n");
  EXPECT_EQ(test_util::ReadFile(dir / "etc/odd"), "12345");
  EXPECT_EQ(RunFilter("readlink '" + (dir / "bin/sh") + "'", ""), "busybox\n");
  EXPECT_EQ(RunFilter("stat -c %Y '" + (dir / "etc/hostname") + "'", ""), "1700000000\n");
}
