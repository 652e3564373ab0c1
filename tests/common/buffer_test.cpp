#include "common/buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(StaticBuffer, CapacityZeroMeasuresWithoutStoring) {
  StaticBuffer b(nullptr, 0);
  EXPECT_TRUE(b.Append("abc", 3));
  EXPECT_TRUE(b.Append(nullptr, 1000));
  EXPECT_TRUE(b.Append("x", 1));
  EXPECT_EQ(b.GetSize(), 1004u);
  b.WriteAt(0, "zz", 2);  // nothing to write into
}

TEST(StaticBuffer, StoresWhatFitsAndCountsEverything) {
  char block[8];
  std::memset(block, '#', sizeof block);
  StaticBuffer b(block, 6);
  b.Append("abcd", 4);
  b.Append("efgh", 4);
  EXPECT_EQ(b.GetSize(), 8u);
  EXPECT_EQ(std::string(block, 8), "abcdef##");
}

TEST(StaticBuffer, NullDataAppendsZeroes) {
  char block[4];
  std::memset(block, '#', sizeof block);
  StaticBuffer b(block, 4);
  b.Append("a", 1);
  b.Append(nullptr, 2);
  EXPECT_EQ(std::string(block, 4), std::string("a\0\0#", 4));
}

TEST(StaticBuffer, WriteAtClipsToTheCapacity) {
  struct Case {
    size_t offset;
    const char* data;
    size_t size;
    std::string expect;
  };
  const Case cases[] = {
      {0, "XY", 2, "XYcdef##"},  {4, "XYZ", 3, "abcdXY##"}, {6, "XY", 2, "abcdef##"},
      {100, "XY", 2, "abcdef##"}, {1, nullptr, 2, std::string("a\0\0def##", 8)},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    char block[8];
    std::memcpy(block, "abcdef##", 8);
    StaticBuffer b(block, 6);
    b.WriteAt(c.offset, c.data, c.size);
    EXPECT_EQ(std::string(block, 8), c.expect) << "case " << i;
  }
}

TEST(DynamicBuffer, GrowsByHalfOrToWhatIsNeeded) {
  DynamicBuffer b;
  EXPECT_EQ(b.Capacity(), 0u);
  ASSERT_TRUE(b.Append("abcd", 4));
  EXPECT_EQ(b.Capacity(), 4u);  // needed beats 0 * 1.5
  ASSERT_TRUE(b.Append("e", 1));
  EXPECT_EQ(b.Capacity(), 6u);  // 4 + 2
  ASSERT_TRUE(b.Append("f", 1));
  EXPECT_EQ(b.Capacity(), 6u);
  ASSERT_TRUE(b.Append("g", 1));
  EXPECT_EQ(b.Capacity(), 9u);  // 6 + 3
  ASSERT_TRUE(b.Append(nullptr, 20));
  EXPECT_EQ(b.Capacity(), 27u);  // needed 27 beats 13
  EXPECT_EQ(b.GetSize(), 27u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.Data()), 7), "abcdefg");
  for (size_t i = 7; i < 27; ++i) EXPECT_EQ(b.Data()[i], 0);
}

TEST(DynamicBuffer, WriteAtPatchesEarlierBytes) {
  DynamicBuffer b;
  b.Append("0000data", 8);
  b.WriteAt(0, "LEN4", 4);
  b.WriteAt(6, "TAIL", 4);  // past the capacity: only what fits
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.Data()), 8), "LEN4daTA");
  EXPECT_EQ(b.GetSize(), 8u);
}

TEST(DynamicBuffer, ImpossibleGrowthEmptiesTheBuffer) {
  DynamicBuffer b;
  ASSERT_TRUE(b.Append("abc", 3));
  EXPECT_FALSE(b.Append(nullptr, SIZE_MAX - 1));
  EXPECT_EQ(b.GetSize(), 0u);
  EXPECT_EQ(b.Capacity(), 0u);
  EXPECT_EQ(b.Data(), nullptr);
  EXPECT_TRUE(b.Append("x", 1));  // usable again
  EXPECT_EQ(b.GetSize(), 1u);
}

}  // namespace
