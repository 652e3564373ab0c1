#include "file/adapters.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_streams.h"
#include "file/buf_ifile.h"
#include "file/memfile.h"

using test_util::RecordingSink;
using test_util::ScriptedInput;

namespace {

// SkipableIFile

TEST(SkipableIFile, PendingByteComesFirstWithoutTouchingInnerPosition) {
  ScriptedInput inner("bcd");
  SkipableIFile f(inner);
  f.PushBack('a');
  char c = 0;
  uint64_t got = 0;
  f.Read(&c, 1, got);
  EXPECT_EQ(got, 1u);
  EXPECT_EQ(c, 'a');
  EXPECT_EQ(inner.position, 0u);
  EXPECT_EQ(inner.sizes, std::vector<uint64_t>{0});  // asked, for nothing
  EXPECT_FALSE(f.HasPending());
}

TEST(SkipableIFile, PendingByteIsFollowedByInnerBytes) {
  ScriptedInput inner("bcd");
  SkipableIFile f(inner);
  f.PushBack('a');
  char buf[8] = {};
  uint64_t got = 0;
  f.Read(buf, 8, got);
  EXPECT_EQ(got, 4u);
  EXPECT_EQ(std::string(buf, 4), "abcd");
  ASSERT_EQ(inner.sizes.size(), 1u);
  EXPECT_EQ(inner.sizes.back(), 7u);  // one byte fewer than asked
  f.Read(buf, 8, got);
  EXPECT_EQ(got, 0u);
}

TEST(SkipableIFile, ZeroByteReadKeepsThePendingByte) {
  ScriptedInput inner("x");
  SkipableIFile f(inner);
  f.PushBack('a');
  uint64_t got = 9;
  f.Read(nullptr, 0, got);
  EXPECT_EQ(got, 0u);
  EXPECT_TRUE(f.HasPending());
  EXPECT_FALSE(f.HasError());
}

TEST(SkipableIFile, InnerErrorMovesOutAndPendingByteStillCounts) {
  ScriptedInput inner("xyz");
  inner.failAt = 1;
  SkipableIFile f(inner);
  f.PushBack('a');
  char buf[4] = {};
  uint64_t got = 0;
  f.Read(buf, 4, got);
  EXPECT_EQ(got, 1u);
  EXPECT_EQ(buf[0], 'a');
  EXPECT_FALSE(inner.HasError());
  EXPECT_EQ(f.GetError().Code(), 0x40001u);
  // Stopped until the error is taken.
  f.Read(buf, 4, got);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(inner.reads, 1);
  f.TakeError();
  f.Read(buf, 4, got);
  EXPECT_EQ(got, 3u);
}

TEST(SkipableIFile, ExactReadShortOfDataIsEndOfFile) {
  ScriptedInput inner("b");
  SkipableIFile f(inner);
  f.PushBack('a');
  char buf[3];
  f.Read(buf, 3);
  EXPECT_EQ(f.GetError().Code(), 0x40002u);
  EXPECT_FALSE(inner.HasError());
}

// SizeLimitedIFile

TEST(SizeLimitedIFile, LimitZeroNeverTouchesTheInnerStream) {
  ScriptedInput inner("abc");
  SizeLimitedIFile f(inner, 0);
  char buf[4];
  uint64_t got = 9;
  f.Read(buf, 4, got);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(inner.reads, 0);
  EXPECT_FALSE(f.HasError());
}

TEST(SizeLimitedIFile, DeliversUpToTheLimitInPieces) {
  struct Case {
    uint64_t limit;
    uint64_t chunk;
    std::string expect;
  };
  const Case cases[] = {{5, 2, "abcde"}, {5, 5, "abcde"}, {5, 100, "abcde"}, {20, 3, "abcdefghij"}};
  for (const auto& c : cases) {
    ScriptedInput inner("abcdefghij");
    SizeLimitedIFile f(inner, c.limit);
    std::string all;
    char buf[128];
    for (;;) {
      uint64_t got = 0;
      f.Read(buf, c.chunk, got);
      ASSERT_FALSE(f.HasError());
      if (got == 0) break;
      all.append(buf, got);
    }
    EXPECT_EQ(all, c.expect) << "limit " << c.limit << " chunk " << c.chunk;
    EXPECT_EQ(f.Position(), c.expect.size());
    EXPECT_LE(inner.position, c.limit);  // never reads past the limit
  }
}

TEST(SizeLimitedIFile, HugeRequestIsCutWithoutOverflow) {
  ScriptedInput inner("abcdef");
  SizeLimitedIFile f(inner, 4);
  char buf[8];
  uint64_t got = 0;
  f.Read(buf, 2, got);
  f.Read(buf, UINT64_MAX, got);  // position + size would wrap
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(inner.sizes.back(), 2u);
}

TEST(SizeLimitedIFile, InnerErrorMovesOut) {
  ScriptedInput inner("abcdef");
  inner.failAt = 1;
  inner.failCode = 0x4000D;
  SizeLimitedIFile f(inner, 4);
  char buf[4];
  uint64_t got = 0;
  f.Read(buf, 4, got);
  EXPECT_EQ(f.GetError().Code(), 0x4000Du);
  EXPECT_FALSE(inner.HasError());
  EXPECT_EQ(f.Position(), 0u);
}

TEST(SizeLimitedIFile, ExactReadPastTheLimitIsEndOfFile) {
  ScriptedInput inner("abcdef");
  SizeLimitedIFile f(inner, 3);
  char buf[4];
  f.Read(buf, 4);
  EXPECT_EQ(f.GetError().Code(), 0x40002u);
}

// MultiWriter

TEST(MultiWriter, EverySinkGetsEveryBuffer) {
  RecordingSink a, b;
  Common::MemoryFileImpl c;
  MultiWriter w({&a, &b, &c});
  w.Write("hello ", 6);
  w.Write("world", 5);
  EXPECT_FALSE(w.HasError());
  EXPECT_EQ(a.data, "hello world");
  EXPECT_EQ(b.data, "hello world");
  EXPECT_EQ(c.GetSize(), 11);
}

TEST(MultiWriter, FailingFirstSinkStopsBeforeTheSecond) {
  RecordingSink a, b;
  a.failAt = 1;
  MultiWriter w({&a, &b});
  uint64_t written = 9;
  w.Write("x", 1, written);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(w.GetError().Code(), 0x40003u);
  EXPECT_FALSE(a.HasError());
  EXPECT_EQ(b.writes, 0);
  // Sticky: nothing reaches any sink until the error is taken.
  w.Write("y", 1, written);
  EXPECT_EQ(a.writes, 1);
  w.TakeError();
  w.Write("z", 1, written);
  EXPECT_EQ(written, 1u);
  EXPECT_EQ(b.data, "z");
}

TEST(MultiWriter, ShortWriteOfASinkIsDiskFull) {
  RecordingSink a, b;
  b.accept = 2;
  MultiWriter w({&a, &b});
  uint64_t written = 9;
  w.Write("abcd", 4, written);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(w.GetError().Code(), 0x40004u);
  EXPECT_EQ(w.GetError().Message(), u"The disk is full.");
  EXPECT_FALSE(b.HasError());
  EXPECT_EQ(a.data, "abcd");
}

TEST(MultiWriter, NoSinksSwallowsTheBytes) {
  MultiWriter w({});
  uint64_t written = 0;
  w.Write("abc", 3, written);
  EXPECT_EQ(written, 3u);
  EXPECT_FALSE(w.HasError());
}

TEST(MultiWriter, FlushIsTheQuietDefault) {
  RecordingSink a;
  MultiWriter w({&a});
  w.Flush();
  EXPECT_FALSE(w.HasError());
}

// The adapters chained as the RAM disk code does: copy a limited window
// behind a pushed-back byte into two sinks.
TEST(Adapters, ChainedWindowReachesEverySink) {
  buf_ifile<unsigned char> source("XYZ-payload-trailer", 19);
  char first = 0;
  source.Read(&first, 1);
  SkipableIFile skip(source);
  skip.PushBack(static_cast<unsigned char>(first));
  SizeLimitedIFile window(skip, 11);
  Common::MemoryFileImpl a, b;
  MultiWriter both({&a, &b});
  char buf[4];
  for (;;) {
    uint64_t got = 0;
    window.Read(buf, sizeof buf, got);
    if (got == 0) break;
    both.Write(buf, got);
  }
  EXPECT_FALSE(both.HasError());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(a.GetData()), 11), "XYZ-payload");
  EXPECT_EQ(a.GetSize(), b.GetSize());
}

}  // namespace
