#include "file/memfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using Common::MemoryFile;

namespace {

constexpr uint64_t kLimit = 0x40000000;

std::string Contents(MemoryFile& f) {
  const unsigned char* p = f.GetData();
  return p ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(f.GetSize()))
           : std::string();
}

TEST(MemoryFile, FactoryGivesEmptyFileAtStartWithNullData) {
  auto f = Common::CreateMemoryFile();
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->GetSize(), 0);
  EXPECT_EQ(f->SeekCur(0), 0);
  EXPECT_EQ(f->GetData(), nullptr);
  EXPECT_FALSE(f->HasError());
}

TEST(MemoryFile, WritePastEndFillsGapWithZeroes) {
  Common::MemoryFileImpl f;
  EXPECT_EQ(f.Seek(10), 10);
  uint64_t written = 99;
  f.Write("ab", 2, written);
  EXPECT_EQ(written, 2u);
  EXPECT_EQ(f.GetSize(), 12);
  EXPECT_EQ(Contents(f), std::string(10, '\0') + "ab");
  EXPECT_EQ(f.SeekCur(0), 12);
}

TEST(MemoryFile, OverwriteInsideKeepsSizeAndGrowsAcrossEnd) {
  Common::MemoryFileImpl f;
  f.Write("hello world", 11);
  f.Seek(6);
  f.Write("W", 1);
  EXPECT_EQ(Contents(f), "hello World");
  f.Seek(9);
  f.Write("LD!!", 4);
  EXPECT_EQ(Contents(f), "hello WorLD!!");
  EXPECT_FALSE(f.HasError());
}

struct ReadCase {
  const char* name;
  int64_t position;
  uint64_t size;
  uint64_t expectGot;
  const char* expectBytes;
};

class MemoryFileRead : public testing::TestWithParam<ReadCase> {};

TEST_P(MemoryFileRead, DeliversWhatIsLeftAndNeverAnError) {
  const ReadCase& c = GetParam();
  Common::MemoryFileImpl f;
  f.Write("0123456789", 10);
  f.Seek(c.position);
  char buf[32];
  std::memset(buf, 'x', sizeof buf);
  uint64_t got = 12345;
  f.Read(buf, c.size, got);
  EXPECT_EQ(got, c.expectGot);
  EXPECT_EQ(std::string(buf, got), c.expectBytes);
  EXPECT_FALSE(f.HasError());
  EXPECT_EQ(f.SeekCur(0), c.position + static_cast<int64_t>(got));
}

INSTANTIATE_TEST_SUITE_P(
    Table, MemoryFileRead,
    testing::Values(ReadCase{"Start", 0, 4, 4, "0123"}, ReadCase{"ZeroBytes", 3, 0, 0, ""},
                    ReadCase{"ShortAtEnd", 7, 10, 3, "789"}, ReadCase{"AtEnd", 10, 5, 0, ""},
                    ReadCase{"PastEnd", 50, 5, 0, ""}, ReadCase{"Negative", -3, 5, 0, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MemoryFile, WriteAtNegativePositionDoesNothing) {
  Common::MemoryFileImpl f;
  f.Seek(-1);
  uint64_t written = 7;
  f.Write("a", 1, written);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(f.GetSize(), 0);
  EXPECT_FALSE(f.HasError());
}

TEST(MemoryFile, SeeksAreUncheckedArithmetic) {
  Common::MemoryFileImpl f;
  f.Write("abcdef", 6);
  EXPECT_EQ(f.Seek(2), 2);
  EXPECT_EQ(f.SeekCur(3), 5);
  EXPECT_EQ(f.SeekCur(-10), -5);
  EXPECT_EQ(f.SeekEnd(-1), 5);
  EXPECT_EQ(f.SeekEnd(4), 10);
  EXPECT_EQ(f.Rewind(), 0);
  EXPECT_FALSE(f.HasError());
}


TEST(MemoryFile, TruncateGrowsWithZeroesShrinksAndKeepsPosition) {
  Common::MemoryFileImpl f;
  f.Write("abcdef", 6);
  f.Truncate(3);
  EXPECT_EQ(Contents(f), "abc");
  EXPECT_EQ(f.SeekCur(0), 6);
  f.Truncate(5);
  EXPECT_EQ(Contents(f), std::string("abc\0\0", 5));
  f.Truncate(0);
  EXPECT_EQ(f.GetData(), nullptr);
  EXPECT_FALSE(f.HasError());
}

// One test owns the single 1 GiB allocation so that parallel test runs do
// not hold several at once.
TEST(MemoryFile, SizeLimitIsOneGiB) {
  Common::MemoryFileImpl f;
  f.Write("keep", 4);
  f.Truncate(kLimit + 1);
  ASSERT_TRUE(f.HasError());
  Common::Error e = f.TakeError();
  EXPECT_EQ(e.Code(), 0x40003u);
  EXPECT_EQ(e.Message(), u"Error occurred while writing the file.");
  EXPECT_EQ(Contents(f), "keep");

  f.Truncate(kLimit);
  ASSERT_FALSE(f.HasError());
  EXPECT_EQ(f.GetSize(), static_cast<int64_t>(kLimit));
  EXPECT_EQ(std::memcmp(f.GetData(), "keep", 4), 0);

  f.Seek(kLimit - 2);
  uint64_t written = 0;
  f.Write("WXYZ", 4, written);
  EXPECT_EQ(written, 2u);
  EXPECT_FALSE(f.HasError());
  EXPECT_EQ(f.GetSize(), static_cast<int64_t>(kLimit));
  EXPECT_EQ(std::memcmp(f.GetData() + kLimit - 2, "WX", 2), 0);

  // At the limit the virtual form accepts nothing, silently; the exact form
  // turns that into "The disk is full.".
  f.Write("a", 1, written);
  EXPECT_EQ(written, 0u);
  EXPECT_FALSE(f.HasError());
  f.Write("a", 1);
  ASSERT_TRUE(f.HasError());
  EXPECT_EQ(f.GetError().Code(), 0x40004u);
  EXPECT_EQ(f.GetError().Message(), u"The disk is full.");
}

TEST(MemoryFile, HeldErrorStopsEveryOperationUntilTaken) {
  Common::MemoryFileImpl f;
  f.Write("abc", 3);
  f.Rewind();
  f.Truncate(kLimit + 1);  // records the error
  ASSERT_TRUE(f.HasError());

  char buf[4];
  uint64_t n = 9;
  f.Read(buf, 3, n);
  EXPECT_EQ(n, 0u);
  n = 9;
  f.Write("zz", 2, n);
  EXPECT_EQ(n, 0u);
  f.Truncate(1);
  EXPECT_EQ(Contents(f), "abc");
  EXPECT_EQ(f.GetError().Code(), 0x40003u);  // the first error stays

  f.TakeError();
  EXPECT_FALSE(f.HasError());
  f.Read(buf, 3, n);
  EXPECT_EQ(n, 3u);
}


}  // namespace
