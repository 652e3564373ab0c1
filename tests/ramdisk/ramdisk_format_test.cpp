// Names, patterns, type bits and the header writer of the cpio format.
#include <gtest/gtest.h>

#include "file/fake_streams.h"
#include "linex/ramdisk.h"
#include "test_util.h"

using namespace LinuxEx;
using namespace Common::Codes;
using test_util::RecordingSink;
using test_util::ThrownCode;

TEST(RamdiskNames, NormalFormDropsEmptyDotAndDotDotParts) {
  struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"./a//b/../c", "a/c"}, {"/etc/passwd", "etc/passwd"}, {"a/b/", "a/b"},
      {".", ""},              {"/", ""},                     {"", ""},
      {"../../x", "x"},       {"a/../../b", "b"},            {"a/./b/./", "a/b"},
      {"..a/b..", "..a/b.."}, {"TRAILER!!!", "TRAILER!!!"},  {"./TRAILER!!!", "TRAILER!!!"},
  };
  for (const auto& c : cases) EXPECT_EQ(NormalizeRamdiskName(c.in), c.out) << c.in;
}

TEST(RamdiskNames, PatternsMatchByTheirStarRules) {
  struct {
    const char* name;
    const char* pattern;
    bool match;
  } cases[] = {
      {"dir/keep", "dir/*", true},       {"dir", "dir/*", false},
      {"dir/a/b", "dir/*", true},        {"other/dir/x", "dir/*", false},
      {"abc", "abc", true},              {"abcd", "abc", false},
      {"abc", "abc*", true},             {"xabc", "*abc", true},
      {"abcx", "*abc", false},           {"anything", "*", true},
      {"", "*", true},                   {"a", "a*a", true},  // the last part ignores the first
      {"a/x/b/y/c", "a*b*c", true},      {"a/x/c/y/b", "a*b*c", false},
      {"lib/modules/x.ko", "lib/*/*.ko", true},
      {"lib/modules/x.ko.xz", "lib/*/*.ko", false},
      {"anything", "", true},            {"ab", "a**b", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(MatchPattern(c.name, c.pattern), c.match) << c.name << " ~ " << c.pattern;
}

TEST(RamdiskNodeTypes, ModeBitsMapBothWays) {
  const uint32_t bits[] = {0x8000, 0x4000, 0xa000, 0xc000, 0x1000, 0x2000, 0x6000};
  for (int type = 0; type < 7; ++type) {
    EXPECT_EQ(ModeTypeBits(type), bits[type]);
    EXPECT_EQ(NodeTypeOfMode(bits[type] | 0755), type);
  }
  EXPECT_EQ(ModeTypeBits(kUnknownNode), 0u);
  EXPECT_EQ(NodeTypeOfMode(0), kUnknownNode);
  EXPECT_EQ(NodeTypeOfMode(0xe000), kUnknownNode);
  EXPECT_EQ(NodeTypeOfMode(0x3000), kUnknownNode);
}

TEST(RamdiskHeaderWriter, WritesUpperCaseFieldsNameAndPaddingInOneWrite) {
  RamdiskNode node;
  node.ino = 0xabcdef01;
  node.mode = 0755;
  node.type = kDirectory;
  node.uid = 1;
  node.gid = 2;
  node.nlink = 3;
  node.mtime = 0x5f000000;
  node.filesize = 0x10;
  node.rdevmajor = 8;
  node.rdevminor = 0xff;
  node.name = "ab";  // 110 + 3 bytes, padded to 116
  RecordingSink sink;
  &sink << node;
  ASSERT_EQ(sink.writes, 1);
  const std::string expected = std::string("070701") + "ABCDEF01" + "000041ED" + "00000001" + "00000002" +
                               "00000003" + "5F000000" + "00000010" + "00000000" + "00000000" +
                               "00000008" + "000000FF" + "00000003" + "00000000" + "ab" +
                               std::string(4, '\0');
  EXPECT_EQ(sink.data, expected);

  // The static trailer: a regular file's mode bits and one link.
  RecordingSink trailer;
  &trailer << TrailerNode();
  EXPECT_EQ(trailer.data.substr(14, 8), "00008000");
  EXPECT_EQ(trailer.data.substr(38, 8), "00000001");
  EXPECT_EQ(trailer.data.size(), 124u);
}

TEST(RamdiskHeaderWriter, OutputFailuresAreThrown) {
  RamdiskNode node;
  node.name = "x";
  EXPECT_EQ(ThrownCode([&] { static_cast<o_file*>(nullptr) << node; }), WriteError);

  RecordingSink failing;
  failing.failAt = 1;
  EXPECT_EQ(ThrownCode([&] { &failing << node; }), WriteError);
  EXPECT_FALSE(failing.HasError());

  RecordingSink shortSink;
  shortSink.accept = 10;
  EXPECT_EQ(ThrownCode([&] { &shortSink << node; }), DiskFull);
}
