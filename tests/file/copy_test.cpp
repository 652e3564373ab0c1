#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fake_streams.h"
#include "file/memfile.h"
#include "file/utils.h"

using test_util::RecordingSink;
using test_util::ScriptedInput;

namespace {

TEST(SimpleCopyFile, EmptySourceSucceedsWithoutWriting) {
  ScriptedInput in("");
  RecordingSink out;
  uint64_t copied = 77;
  EXPECT_TRUE(SimpleCopyFile(&in, &out, &copied, 16).IsSuccess());
  EXPECT_EQ(copied, 0u);
  EXPECT_EQ(out.writes, 0);
}

struct CopyCase {
  const char* name;
  size_t length;
  size_t buffer;
  int expectReads;
  int expectWrites;
};

class SimpleCopySizes : public testing::TestWithParam<CopyCase> {};

// A full chunk asks for more; a short one is the end.  An exact multiple
// therefore ends on the 0-byte read, with no empty write after it.
TEST_P(SimpleCopySizes, CopiesEverythingAndStopsAtTheRightRead) {
  const CopyCase& c = GetParam();
  std::string data;
  for (size_t i = 0; i < c.length; ++i) data.push_back(char('a' + i % 26));
  ScriptedInput in(data);
  RecordingSink out;
  uint64_t copied = 0;
  ASSERT_TRUE(SimpleCopyFile(&in, &out, &copied, c.buffer).IsSuccess());
  EXPECT_EQ(copied, c.length);
  EXPECT_EQ(out.data, data);
  EXPECT_EQ(in.reads, c.expectReads);
  EXPECT_EQ(out.writes, c.expectWrites);
  for (uint64_t s : out.sizes) EXPECT_NE(s, 0u);
  for (uint64_t s : in.sizes) EXPECT_EQ(s, c.buffer);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimpleCopySizes,
    testing::Values(CopyCase{"ShorterThanBuffer", 10, 16, 1, 1},
                    CopyCase{"ExactlyOneBuffer", 16, 16, 2, 1},
                    CopyCase{"ExactMultiple", 48, 16, 4, 3},
                    CopyCase{"PartialLastChunk", 50, 16, 4, 4},
                    CopyCase{"DefaultSizeExactMultiple", 131072, 65536, 3, 2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SimpleCopyFile, OverloadWithoutCountCopiesToo) {
  ScriptedInput in("hello");
  Common::MemoryFileImpl out;
  EXPECT_TRUE(SimpleCopyFile(&in, &out).IsSuccess());
  EXPECT_EQ(out.GetSize(), 5);
}

TEST(SimpleCopyFile, NullStreamsGiveReadAndWriteErrors) {
  ScriptedInput in("x");
  RecordingSink out;
  uint64_t copied = 5;
  EXPECT_EQ(SimpleCopyFile(nullptr, &out, &copied).Code(), 0x40001u);
  EXPECT_EQ(copied, 0u);
  EXPECT_EQ(SimpleCopyFile(&in, nullptr, &copied).Code(), 0x40003u);
  EXPECT_EQ(SimpleCopyFile(nullptr, &out).Message(), u"Error occurred while reading the file.");
}

TEST(SimpleCopyFile, SourceErrorIsTakenOutAndReturned) {
  ScriptedInput in(std::string(40, 'x'));
  in.failAt = 2;
  in.failCode = 0x4000D;
  RecordingSink out;
  uint64_t copied = 0;
  Common::Error e = SimpleCopyFile(&in, &out, &copied, 16);
  EXPECT_EQ(e.Code(), 0x4000Du);
  EXPECT_FALSE(in.HasError());  // the source is usable again
  EXPECT_EQ(copied, 16u);
  EXPECT_EQ(out.writes, 1);
}

TEST(SimpleCopyFile, TargetErrorIsTakenOutAndReturned) {
  ScriptedInput in(std::string(40, 'x'));
  RecordingSink out;
  out.failAt = 2;
  uint64_t copied = 0;
  Common::Error e = SimpleCopyFile(&in, &out, &copied, 16);
  EXPECT_EQ(e.Code(), 0x40003u);
  EXPECT_FALSE(out.HasError());
  EXPECT_EQ(copied, 16u);
  EXPECT_EQ(in.reads, 2);  // stops at once
}

TEST(SimpleCopyFile, ShortWriteIsDiskFull) {
  ScriptedInput in(std::string(40, 'x'));
  RecordingSink out;
  out.accept = 10;
  uint64_t copied = 0;
  Common::Error e = SimpleCopyFile(&in, &out, &copied, 16);
  EXPECT_EQ(e.Code(), 0x40004u);
  EXPECT_EQ(e.Message(), u"The disk is full.");
  EXPECT_FALSE(out.HasError());
  EXPECT_EQ(copied, 0u);
}

TEST(SimpleCopyFile, StopsWhenSourceAlreadyHoldsAnError) {
  ScriptedInput in("abc");
  in.SetError(ERROR_HERE, 0x40002);
  RecordingSink out;
  EXPECT_EQ(SimpleCopyFile(&in, &out).Code(), 0x40002u);
  EXPECT_EQ(out.writes, 0);
}

// MD5 test suite of RFC 1321, appendix A.5, and the million-'a' vector.
struct Md5Case {
  std::string input;
  const char* hex;
};

std::string Hex(const unsigned char* d) {
  static const char* digits = "0123456789abcdef";
  std::string s;
  for (int i = 0; i < 16; ++i) {
    s.push_back(digits[d[i] >> 4]);
    s.push_back(digits[d[i] & 15]);
  }
  return s;
}

const Md5Case kMd5Vectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
    {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
};

TEST(CalcMD5File, MatchesKnownVectorsForEveryBufferSize) {
  for (size_t buffer : {size_t(1), size_t(3), size_t(26), size_t(64), size_t(65536)}) {
    for (const auto& v : kMd5Vectors) {
      if (buffer < 26 && v.input.size() > 100) continue;  // a million one-byte reads is slow
      ScriptedInput in(v.input);
      unsigned char digest[16];
      std::memset(digest, 0xAA, sizeof digest);
      ASSERT_TRUE(CalcMD5File(&in, digest, buffer).IsSuccess());
      EXPECT_EQ(Hex(digest), v.hex) << "length " << v.input.size() << ", buffer " << buffer;
      EXPECT_FALSE(in.HasError());
    }
  }
}

TEST(CalcMD5File, DigestsOnlyWhatRemainsFromThePosition) {
  Common::MemoryFileImpl f;
  f.Write("xxabc", 5);
  f.Seek(2);
  unsigned char digest[16];
  ASSERT_TRUE(CalcMD5File(&f, digest).IsSuccess());
  EXPECT_EQ(Hex(digest), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(CalcMD5File, StreamErrorIsReturnedWithoutADigest) {
  ScriptedInput in(std::string(100, 'q'));
  in.failAt = 3;
  unsigned char digest[16];
  std::memset(digest, 0xAA, sizeof digest);
  EXPECT_EQ(CalcMD5File(&in, digest, 10).Code(), 0x40001u);
  EXPECT_FALSE(in.HasError());
  for (unsigned char b : digest) EXPECT_EQ(b, 0xAA);
}

TEST(CalcMD5File, NullFileIsReadError) {
  unsigned char digest[16];
  EXPECT_EQ(CalcMD5File(nullptr, digest).Code(), 0x40001u);
}

}  // namespace
