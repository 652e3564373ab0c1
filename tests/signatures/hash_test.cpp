// A file's digest against the list: exact matches only, streamed in blocks,
// read errors reported with their cause.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/error_codes.h"
#include "efi/signatures.h"
#include "file/buf_ifile.h"
#include "file/fake_streams.h"
#include "test_util.h"

namespace {

using namespace EfiLoader;
using test_util::ScriptedInput;

// Published SHA-256 test vectors.
const char* kOneMillionA = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
const char* kAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const char* kEmpty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::vector<uint8_t> Unhex(const char* s) {
  std::vector<uint8_t> out;
  EXPECT_TRUE(ConvertToBinary(s, out).IsSuccess());
  return out;
}

// Counts up to `size` bytes of a repeating pattern without holding them.
class PatternStream : public i_file {
 public:
  explicit PatternStream(uint64_t size) : size_(size) {}
  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override {
    got = 0;
    largest = size > largest ? size : largest;
    const uint64_t n = size < size_ - position_ ? size : size_ - position_;
    // Runs of 4096 equal bytes, each run's value from its index.
    auto* out = static_cast<uint8_t*>(buffer);
    for (uint64_t done = 0; done < n;) {
      const uint64_t at = position_ + done;
      const uint64_t run = std::min<uint64_t>(4096 - at % 4096, n - done);
      std::memset(out + done, static_cast<int>((at >> 12) * 37 & 0xFF), run);
      done += run;
    }
    position_ += n;
    got = n;
  }
  uint64_t largest = 0;

 private:
  uint64_t size_;
  uint64_t position_ = 0;
};

TEST(IsHashValid, MatchesOnlyAnEntryOfTheSameLengthAndContent) {
  const auto digest = Unhex(kAbc);
  auto shorter = digest;
  shorter.pop_back();
  auto longer = digest;
  longer.push_back(0);
  auto flipped = digest;
  flipped[31] ^= 1;
  const std::string abc = "abc";

  buf_ifile<unsigned char> a(abc.data(), abc.size());
  EXPECT_FALSE(IsHashValid(a, {shorter, longer, flipped, {}}));
  buf_ifile<unsigned char> b(abc.data(), abc.size());
  EXPECT_TRUE(IsHashValid(b, {shorter, longer, flipped, Unhex(kEmpty), digest}));
  buf_ifile<unsigned char> c(abc.data(), abc.size());
  EXPECT_FALSE(IsHashValid(c, {}));
  // Digests from a list in capitals are the same bytes.
  buf_ifile<unsigned char> d(abc.data(), abc.size());
  EXPECT_TRUE(IsHashValid(d, {Unhex("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD")}));
}

TEST(IsHashValid, ReadsFromTheCurrentPositionToTheEnd) {
  const std::string data = "xyzabc";
  buf_ifile<unsigned char> file(data.data(), data.size());
  file.Seek(3);
  EXPECT_TRUE(IsHashValid(file, {Unhex(kAbc)}));

  buf_ifile<unsigned char> atEnd(data.data(), data.size());
  atEnd.SeekEnd(0);
  EXPECT_TRUE(IsHashValid(atEnd, {Unhex(kEmpty)}));
}

TEST(IsHashValid, ShortReadsDoNotEndTheFileAndBlocksStayBounded) {
  // A stream that hands out less than asked (a volume at a fragment's end,
  // a decompressor) is read on until it gives nothing.
  ScriptedInput in(std::string(1000000, 'a'), 777);
  EXPECT_TRUE(IsHashValid(in, {Unhex(kOneMillionA)}));
  for (uint64_t s : in.sizes) EXPECT_EQ(s, 32768u);
  EXPECT_EQ(in.reads, 1000000 / 777 + 2);
}

TEST(IsHashValid, HugeFilesAreStreamed) {
  const uint64_t size = (256ull << 20) + 12345;
  PatternStream reference(size);
  // The expected digest, through libcrypto's one-shot digest over the same
  // pattern fed in other piece sizes.
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  ASSERT_EQ(EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr), 1);
  std::vector<uint8_t> piece(1 << 20);
  for (;;) {
    uint64_t got = 0;
    reference.Read(piece.data(), piece.size(), got);
    if (!got) break;
    EVP_DigestUpdate(ctx, piece.data(), got);
  }
  std::vector<uint8_t> expected(32);
  unsigned len = 0;
  EVP_DigestFinal_ex(ctx, expected.data(), &len);
  EVP_MD_CTX_free(ctx);

  PatternStream file(size);
  EXPECT_TRUE(IsHashValid(file, {expected}));
  EXPECT_EQ(file.largest, 32768u);
}

TEST(IsHashValid, ReadErrorsAreRaisedWithTheStreamErrorAsCause) {
  ScriptedInput in(std::string(100000, 'q'), 32768);
  in.failAt = 3;
  in.failCode = Common::Codes::Corrupted;
  try {
    IsHashValid(in, {Unhex(kEmpty)});
    FAIL() << "no error raised";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.Code(), 0x1480016u);
    EXPECT_EQ(test_util::Narrow(e.Message()), "Failed to read the file.");
    EXPECT_STREQ(e.Function(), "IsHashValid");
    EXPECT_EQ(e.Cause().Code(), Common::Codes::Corrupted);
  }
  EXPECT_FALSE(in.HasError()) << "the stream's error was handed on";
}

}  // namespace
