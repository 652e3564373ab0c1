// The XZ reader against streams made by the real xz tool, and against
// those streams damaged on purpose.
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "file/buf_ifile.h"
#include "file/external_tools.h"
#include "file/fake_streams.h"
#include "file/xzfile.h"
#include "test_util.h"

using namespace Common::Codes;
using test_util::RunFilter;
using test_util::SampleData;
using test_util::ScriptedInput;

namespace {

std::string Unxz(const std::string& packed, uint64_t chunk = 65536, Common::Error* error = nullptr) {
  return test_util::DecodeAll<XZDecompressor>(packed, chunk, error);
}

std::string XzTool(const std::string& data, const std::string& flags) {
  return RunFilter("xz -c " + flags, data);
}

void PutLe32(std::string& s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) s[at + i] = char(v >> (8 * i));
}

uint32_t Crc(const std::string& s, size_t at, size_t n) {
  return uint32_t(crc32(0, reinterpret_cast<const Bytef*>(s.data() + at), uInt(n)));
}

}  // namespace

TEST(XzReader, ReadsEveryCheckTypeTheXzToolWrites) {
  const std::string data = SampleData(400000, 2);
  for (const char* flags : {"--check=none", "--check=crc32", "--check=crc64", "--check=sha256",
                            "-0 --check=crc32", "-2e --check=crc64", "--x86 --lzma2 --check=crc32",
                            "--delta=dist=4 --lzma2 --check=none", "--block-size=65536"}) {
    const std::string xz = XzTool(data, flags);
    ASSERT_GT(xz.size(), 32u) << flags;
    for (uint64_t chunk : {1ull, 1000ull, 65536ull, 1000000ull}) {
      if (chunk == 1 && std::string(flags) != "--check=crc64") continue;
      Common::Error error;
      EXPECT_EQ(Unxz(xz, chunk, &error), data) << flags << " chunk " << chunk;
      EXPECT_FALSE(error.IsError()) << flags;
    }
  }
}

TEST(XzReader, StreamEndIsReportedWithTheBytesUsed) {
  const std::string xz = XzTool("hello", "--check=crc32");
  buf_ifile<unsigned char> in(xz.data(), xz.size());
  XZDecompressor reader(in);
  char out[64];
  uint64_t got = 0;
  reader.Read(out, sizeof out, got);
  EXPECT_EQ(std::string(out, got), "hello");
  EXPECT_TRUE(reader.StreamFinished());
  EXPECT_EQ(reader.CompressedBytesUsed(), xz.size());
  reader.Read(out, sizeof out, got);
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(reader.HasError());
}

TEST(XzReader, ConcatenatedStreamsInOneInputBlockAreDecodedTogether) {
  const std::string a = SampleData(3000, 4), b = SampleData(5000, 5);
  const std::string xz = XzTool(a, "--check=crc32") + std::string(8, '\0') + XzTool(b, "--check=sha256");
  EXPECT_EQ(Unxz(xz), a + b);
}

TEST(XzReader, ZeroByteReadDoesNotTouchTheInput) {
  ScriptedInput in(XzTool("abc", ""));
  XZDecompressor reader(in);
  uint64_t got = 9;
  reader.Read(nullptr, 0, got);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(in.reads, 0);
}

TEST(XzReader, CutOffStreamDeliversWhatItCanWithoutError) {
  const std::string data = SampleData(200000, 6);
  const std::string xz = XzTool(data, "--block-size=16384");
  Common::Error error;
  const std::string out = Unxz(xz.substr(0, xz.size() / 2), 65536, &error);
  EXPECT_FALSE(error.IsError());
  EXPECT_GT(out.size(), 0u);
  EXPECT_LT(out.size(), data.size());
  EXPECT_EQ(out, data.substr(0, out.size()));
}

TEST(XzReader, DamageGivesTheDecodersVerdict) {
  const std::string data = SampleData(50000, 7);
  const std::string crc32xz = XzTool(data, "--check=crc32");
  const std::string sha = XzTool(data, "--check=sha256");

  struct Case {
    const char* what;
    std::string bytes;
    uint32_t code;
  } cases[] = {
      {"not xz at all", "070701" + std::string(100, '0'), NotSupported},
      {"gzip magic", std::string("\x1f\x8b\x08\x00", 4) + std::string(40, '\0'), NotSupported},
      {"block check (crc32)", crc32xz, Corrupted},
      {"block check (sha256)", sha, Corrupted},
      {"compressed data", crc32xz, Corrupted},
      {"stream header CRC", crc32xz, NotSupported},
      {"index", crc32xz, Corrupted},
      {"reserved stream flags", crc32xz, NotSupported},
      {"unknown filter", crc32xz, NotSupported},
      {"huge dictionary", crc32xz, NotEnoughMemory},
      {"garbage behind the stream", crc32xz + "junk", NotSupported},
      {"padding not a multiple of 4", crc32xz + std::string(3, '\0') + crc32xz, NotSupported},
  };
  // The block check stands right before the index; the index is behind the
  // last block, the 12-byte footer at the end.
  std::string& crcCheck = cases[2].bytes;
  const size_t indexSize = 4 * (uint8_t(crcCheck[crcCheck.size() - 8]) + 1);
  const size_t crcCheckAt = crcCheck.size() - 12 - indexSize - 4;
  crcCheck[crcCheckAt] ^= 1;
  std::string& shaCheck = cases[3].bytes;
  shaCheck[shaCheck.size() - 12 - 4 * (uint8_t(shaCheck[shaCheck.size() - 8]) + 1) - 32] ^= 1;
  cases[4].bytes[200] ^= 0x40;
  cases[5].bytes[7] ^= 1;  // stream flags, covered by the header CRC
  cases[6].bytes[crcCheckAt + 4 + 2] ^= 1;
  // A reserved bit of the stream flags, with the header CRC mended.
  std::string& flags = cases[7].bytes;
  flags[6] = 1;
  PutLe32(flags, 8, Crc(flags, 6, 2));
  // Block header edits, each with the header CRC mended so that only the
  // edited field is wrong: a filter id nobody knows, and the LZMA2
  // dictionary property 40, which asks for 4 GiB.
  const size_t blockHeaderSize = (uint8_t(crc32xz[12]) + 1) * 4;
  ASSERT_EQ(uint8_t(crc32xz[14]), 0x21);  // LZMA2 filter
  std::string& filter = cases[8].bytes;
  filter[14] = 0x7f;
  PutLe32(filter, 12 + blockHeaderSize - 4, Crc(filter, 12, blockHeaderSize - 4));
  std::string& dict = cases[9].bytes;
  dict[16] = 40;
  PutLe32(dict, 12 + blockHeaderSize - 4, Crc(dict, 12, blockHeaderSize - 4));

  for (const auto& c : cases) {
    Common::Error error;
    Unxz(c.bytes, 65536, &error);
    EXPECT_EQ(error.Code(), c.code) << c.what;
  }
}

TEST(XzReader, InputErrorIsTakenIntoTheStream) {
  ScriptedInput in(XzTool(SampleData(100000, 8), ""), 1000);
  in.failAt = 3;
  XZDecompressor reader(in);
  std::string out(300000, '\0');
  uint64_t got = 0;
  reader.Read(out.data(), out.size(), got);
  EXPECT_EQ(reader.GetError().Code(), ReadError);
  EXPECT_FALSE(in.HasError());
}
