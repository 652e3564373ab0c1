#include "file/buf_ifile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(BufIFile, ReadsTheRangeAndStopsAtItsEnd) {
  const char data[] = "0123456789";
  buf_ifile<unsigned char> f(data + 2, 5);  // "23456"
  EXPECT_EQ(f.GetSize(), 5);
  char buf[8] = {};
  uint64_t got = 0;
  f.Read(buf, 3, got);
  EXPECT_EQ(got, 3u);
  EXPECT_EQ(std::string(buf, 3), "234");
  f.Read(buf, 8, got);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(std::string(buf, 2), "56");
  f.Read(buf, 8, got);
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(f.HasError());
}


TEST(BufIFile, NegativeOrPastEndPositionsReadNothing) {
  const char data[] = "abc";
  buf_ifile<unsigned char> f(data, 3);
  char c = 0;
  uint64_t got = 7;
  EXPECT_EQ(f.SeekCur(-1), -1);
  f.Read(&c, 1, got);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(f.SeekEnd(1), 4);
  f.Read(&c, 1, got);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(f.SeekEnd(-1), 2);
  f.Read(&c, 1, got);
  EXPECT_EQ(got, 1u);
  EXPECT_EQ(c, 'c');
  EXPECT_FALSE(f.HasError());
}



TEST(BufIFile, OwnedBlockIsFreedByTheStream) {
  // Leak checking in the sanitizer build turns a missing delete[] into a
  // failure.
  auto* block = new unsigned char[16];
  std::memcpy(block, "xxhello", 7);
  {
    buf_ifile<unsigned char> f(block, block + 2, 5);
    char buf[5];
    f.Read(buf, 5);
    EXPECT_FALSE(f.HasError());
    EXPECT_EQ(std::string(buf, 5), "hello");
  }
}

}  // namespace
