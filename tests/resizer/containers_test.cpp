// The small containers of the resizer library.
#include <gtest/gtest.h>

#include <random>

#include "resizer/array.h"
#include "resizer/bitmap.h"
#include "resizer/extent_detail.h"
#include "test_util.h"

namespace {

// The text of the internal error that `fn` raises, or "" when none.
std::string InternalText(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), 0x70001u);
    return test_util::Narrow(e.Message());
  }
  return "";
}

}  // namespace

TEST(Bitmap, StorageIsWholeWordsForTheBits) {
  struct Row {
    uint64_t bits;
    size_t bytes;
  };
  for (const Row& r : {Row{0, 0}, Row{1, 8}, Row{64, 8}, Row{65, 16}, Row{128, 16}, Row{129, 24}}) {
    resizer::Bitmap b;
    b.Reset(r.bits);
    EXPECT_EQ(b.StorageBytes(), r.bytes) << r.bits;
    EXPECT_EQ(b.Size(), r.bits);
  }
  resizer::Bitmap b;
  b.Reset(10, 100);
  EXPECT_GE(b.StorageBytes(), 100u);
}

TEST(Bitmap, SetClearAndTestStayWithinTheSize) {
  resizer::Bitmap b;
  b.Reset(130);
  for (uint64_t i : {0ull, 63ull, 64ull, 129ull}) b.Set(i);
  EXPECT_TRUE(b.Test(63));
  EXPECT_TRUE(b.Test(64));
  EXPECT_FALSE(b.Test(65));
  b.Clear(64);
  EXPECT_FALSE(b.Test(64));
  EXPECT_EQ(InternalText([&] { b.Set(130); }), "Internal error: invalid bitmap index");
  EXPECT_EQ(InternalText([&] { b.Test(1ull << 40); }), "Internal error: invalid bitmap index");
  // A new size starts with every bit clear.
  b.Reset(130);
  EXPECT_FALSE(b.Test(0));
}

TEST(Bitmap, ShrinkClearsTheBitsItDropsUpToTheWord) {
  resizer::Bitmap b;
  b.Reset(200);
  for (uint64_t i = 0; i < 200; ++i) b.Set(i);
  b.Shrink(200);  // the same size changes nothing
  EXPECT_TRUE(b.Test(199));
  b.Shrink(70);
  EXPECT_EQ(b.Size(), 70u);
  EXPECT_TRUE(b.Test(69));
  // Growing back shows that bits 70 to 127 were cleared, and nothing else.
  EXPECT_EQ(InternalText([&] { b.Shrink(71); }), "Internal error: Bitmap::Shrink only shrinks");
  const uint8_t* data = b.Data();
  EXPECT_EQ(data[8], 0x3F);    // bits 64..69 kept
  EXPECT_EQ(data[9], 0x00);    // 72..79 cleared
  EXPECT_EQ(data[16], 0xFF);   // bits 128.. untouched
}

TEST(NumberArray, ElementsTakeTheBitsOfTheGreatestValue) {
  resizer::NumberArray a;
  a.Reset(10, 255);
  EXPECT_EQ(a.BitsPerElement(), 8);
  a.Reset(10, 256);
  EXPECT_EQ(a.BitsPerElement(), 9);
  // Room for a 64-bit access at the last element, in whole words.
  EXPECT_EQ(a.StorageBytes(), size_t((((9 * 9) >> 3) + 16) & ~7));
  a.Reset(0, 5);
  EXPECT_EQ(a.Count(), 0u);
  EXPECT_EQ(a.StorageBytes(), 0u);
}

TEST(NumberArray, ValuesOfEveryWidthReadBackAcrossByteAndWordBoundaries) {
  std::mt19937_64 gen(7);
  for (uint64_t greatest : {1ull, 7ull, 1000ull, (1ull << 33) - 1, (1ull << 57) + 5, ~0ull}) {
    resizer::NumberArray a;
    const uint64_t count = 67;
    a.Reset(count, greatest);
    std::vector<uint64_t> expected(count);
    for (uint64_t i = 0; i < count; ++i) {
      expected[i] = greatest == ~0ull ? gen() : gen() % (greatest + 1);
      a.Set(i, expected[i]);
    }
    for (uint64_t i = 0; i < count; ++i) ASSERT_EQ(a.Get(i), expected[i]) << greatest << " at " << i;
  }
}

TEST(NumberArray, BrokenRulesRaiseTheirInternalErrors) {
  resizer::NumberArray empty;
  EXPECT_EQ(InternalText([&] { empty.Get(0); }), "Internal error: attempt to get element from empty array");
  EXPECT_EQ(InternalText([&] { empty.Set(0, 0); }), "Internal error: attempt to set element in empty array");
  resizer::NumberArray a;
  a.Reset(4, 9);
  EXPECT_EQ(InternalText([&] { a.Get(4); }), "Internal error: invalid array index to get");
  EXPECT_EQ(InternalText([&] { a.Set(4, 1); }), "Internal error: invalid array index to set");
  EXPECT_EQ(InternalText([&] { a.Set(0, 10); }), "Internal error: invalid array value to set");
  EXPECT_EQ(InternalText([&] { a.Shrink(5); }), "Internal error: NumberArray::Shrink only shrinks");
  a.Shrink(2);
  EXPECT_EQ(InternalText([&] { a.Get(2); }), "Internal error: invalid array index to get");
}

TEST(NumberArray, ResettingToTheSameShapeKeepsTheStorageAndZeroesIt) {
  resizer::NumberArray a;
  a.Reset(100, 1000);
  a.Set(50, 999);
  a.Reset(100, 600);  // same count, same bits (10)
  EXPECT_EQ(a.Get(50), 0u);
  EXPECT_EQ(a.Greatest(), 600u);
  EXPECT_EQ(InternalText([&] { a.Set(1, 700); }), "Internal error: invalid array value to set");
}

TEST(ExtentStore, GrowsToAtLeastTwiceWhatIsUsedAndKeepsIt) {
  resizer::ExtentStore s;
  s.Append("abcd", 4);
  EXPECT_EQ(s.Size(), 4u);
  s.Reserve(4, 5);
  EXPECT_GE(s.Capacity(), 8u);
  for (int i = 0; i < 1000; ++i) s.Append("xy", 2);
  EXPECT_EQ(s.Size(), 2004u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(s.Begin()), 6), "abcdxy");
  const size_t capacity = s.Capacity();
  s.Reserve(s.Size(), 10);  // enough room already: nothing moves
  EXPECT_EQ(s.Capacity(), capacity);
}
