#include "file/buffered_pipe.h"

#include <gtest/gtest.h>

#include <string>

#include "fake_streams.h"
#include "test_util.h"

using test_util::RecordingSink;
using test_util::ScriptedInput;
using test_util::ThrownCode;

namespace {

// Consumes `n` bytes as the gzip readers do, by moving cursor and count.
std::string Consume(BufferedPipe& p, uint32_t n) {
  std::string s(reinterpret_cast<char*>(p.cursor), n);
  p.cursor += n;
  p.count -= n;
  return s;
}

TEST(BufferedPipe, UntouchedBufferPassesNothingToTheTee) {
  ScriptedInput in("abcdef");
  RecordingSink tee;
  BufferedPipe p(&in, &tee);
  p.Readmore();
  EXPECT_EQ(p.count, 6u);
  EXPECT_EQ(p.cursor, p.base);
  EXPECT_EQ(tee.writes, 0);
  EXPECT_EQ(in.sizes.front(), BufferedPipe::kBufferSize);
}

TEST(BufferedPipe, ConsumedBytesFlowOnButTheLastOneWaits) {
  ScriptedInput in("abcdefgh", 4);
  RecordingSink tee;
  BufferedPipe p(&in, &tee);
  p.Readmore();
  EXPECT_EQ(Consume(p, 4), "abcd");
  p.Readmore();
  EXPECT_EQ(tee.data, "abc");
  EXPECT_EQ(p.base[0], 'd');  // held back at the start
  EXPECT_EQ(p.cursor, p.base + 1);
  EXPECT_EQ(in.sizes.back(), BufferedPipe::kBufferSize - 1);
  EXPECT_EQ(Consume(p, 4), "efgh");
  // The held byte may still be changed, and the changed value flows on.
  p.cursor[-1] = 'H';
  EXPECT_EQ(ThrownCode([&] { p.Readmore(); }), 0x40002u);
  EXPECT_EQ(tee.data, "abcdefg");
  p.WriteToTee(p.cursor);
  EXPECT_EQ(tee.data, "abcdefgH");
}

TEST(BufferedPipe, OneConsumedByteIsKeptWithoutAWrite) {
  ScriptedInput in("ab", 1);
  RecordingSink tee;
  BufferedPipe p(&in, &tee);
  p.Readmore();
  Consume(p, 1);
  p.Readmore();
  EXPECT_EQ(tee.writes, 0);
  EXPECT_EQ(p.base[0], 'a');
  EXPECT_EQ(Consume(p, 1), "b");
}

TEST(BufferedPipe, WithoutTeeConsumedBytesAreDropped) {
  ScriptedInput in("abcdef", 3);
  BufferedPipe p(&in, nullptr);
  p.Readmore();
  Consume(p, 3);
  p.Readmore();
  EXPECT_EQ(Consume(p, 3), "def");
}

TEST(BufferedPipe, EndOfInputThrowsEndOfFile) {
  ScriptedInput in("");
  BufferedPipe p(&in, nullptr);
  EXPECT_EQ(ThrownCode([&] { p.Readmore(); }), 0x40002u);
  EXPECT_EQ(p.count, 0u);
}

TEST(BufferedPipe, InputErrorIsTakenOutAndThrown) {
  ScriptedInput in("abc");
  in.failAt = 1;
  in.failCode = 0x4000D;
  BufferedPipe p(&in, nullptr);
  EXPECT_EQ(ThrownCode([&] { p.Readmore(); }), 0x4000Du);
  EXPECT_FALSE(in.HasError());
}

TEST(BufferedPipe, TeeErrorIsTakenOutAndThrown) {
  ScriptedInput in("abcdef", 3);
  RecordingSink tee;
  tee.failAt = 1;
  BufferedPipe p(&in, &tee);
  p.Readmore();
  Consume(p, 3);
  EXPECT_EQ(ThrownCode([&] { p.Readmore(); }), 0x40003u);
  EXPECT_FALSE(tee.HasError());
}

TEST(BufferedPipe, ShortTeeWriteThrowsDiskFull) {
  ScriptedInput in("abcdef", 3);
  RecordingSink tee;
  tee.accept = 1;
  BufferedPipe p(&in, &tee);
  p.Readmore();
  Consume(p, 3);
  EXPECT_EQ(ThrownCode([&] { p.Readmore(); }), 0x40004u);
  EXPECT_FALSE(tee.HasError());
}

}  // namespace
