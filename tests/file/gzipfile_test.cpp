// gzip streams against the real gzip tool: what it writes we read, what we
// write (or extend) it reads back and checks.
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "common/clock.h"
#include "file/buf_ifile.h"
#include "file/gzipfile.h"
#include "file/external_tools.h"
#include "file/fake_streams.h"
#include "test_util.h"

using namespace Common::Codes;
using test_util::RecordingSink;
using test_util::RunFilter;
using test_util::SampleData;
using test_util::ScriptedInput;
using test_util::ThrownCode;

namespace {

std::string Inflate(const std::string& packed, uint64_t chunk = 65536, Common::Error* error = nullptr) {
  return test_util::DecodeAll<i_gzip_file>(packed, chunk, error);
}

// A raw deflate body made by zlib itself, for hand-built headers.
std::string RawDeflate(const std::string& data, int level = 6) {
  z_stream s{};
  deflateInit2(&s, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&s, data.size()) + 16, '\0');
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  s.avail_in = uInt(data.size());
  s.next_out = reinterpret_cast<Bytef*>(out.data());
  s.avail_out = uInt(out.size());
  deflate(&s, Z_FINISH);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

std::string Le32(uint32_t v) {
  return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
}

std::string Trailer(const std::string& data) {
  return Le32(uint32_t(crc32(0, reinterpret_cast<const Bytef*>(data.data()), uInt(data.size())))) +
         Le32(uint32_t(data.size()));
}

std::string GzipTool(const std::string& data, const std::string& flags) {
  return RunFilter("gzip -c " + flags, data);
}

std::string Gunzip(const std::string& gz, int* status) { return RunFilter("gzip -dc", gz, status); }

// Compresses with o_gzip_file into a string.
std::string Deflate(const std::string& data, int level, uint64_t piece = 1 << 20) {
  RecordingSink sink;
  {
    o_gzip_file out(sink, level);
    for (uint64_t at = 0; at < data.size(); at += piece)
      out.Write(data.data() + at, std::min<uint64_t>(piece, data.size() - at));
    out.Flush();
    EXPECT_FALSE(out.HasError());
  }
  return sink.data;
}

std::string Append(const std::string& gz, const std::string& more, int level = 6,
                   Common::Error* error = nullptr) {
  buf_ifile<unsigned char> in(gz.data(), gz.size());
  RecordingSink sink;
  try {
    GzipAppender appender(in, sink, level);
    appender.Write(more.data(), more.size());
    appender.Flush();
    if (error) *error = appender.TakeError();
  } catch (const Common::Error& e) {
    if (error) *error = e;
    return {};
  }
  return sink.data;
}

}  // namespace

TEST(GzipReader, ReadsWhatTheGzipToolWrites) {
  const std::string data = SampleData(300000);
  for (const char* flags : {"-1", "-9", "-1 -n", "-9 -n"}) {
    const std::string gz = GzipTool(data, flags);
    ASSERT_GT(gz.size(), 18u) << flags;
    for (uint64_t chunk : {1ull, 7ull, 4096ull, 65536ull, 1000000ull}) {
      Common::Error error;
      EXPECT_EQ(Inflate(gz, chunk, &error), data) << flags << " chunk " << chunk;
      EXPECT_FALSE(error.IsError());
    }
  }
}

TEST(GzipReader, SkipsEveryOptionalHeaderField) {
  const std::string data = "the data behind a header with every optional field";
  // FHCRC | FEXTRA | FNAME | FCOMMENT
  std::string gz = std::string("\x1f\x8b\x08\x1e", 4) + std::string(6, '\0');
  gz += std::string("\x05\x00", 2) + "extra";
  gz += std::string("name.txt\0", 9) + std::string("a comment\0", 10) + "\xAA\xBB";
  gz += RawDeflate(data) + Trailer(data);
  EXPECT_EQ(Inflate(gz), data);

  // A stored name as gzip writes it for a named file.
  std::string named = std::string("\x1f\x8b\x08\x08", 4) + std::string(6, '\0') +
                      std::string("file\0", 5) + RawDeflate(data) + Trailer(data);
  EXPECT_EQ(Inflate(named), data);
}

TEST(GzipReader, RefusesBadHeadersAtConstruction) {
  const std::string body = RawDeflate("x");
  struct Case {
    const char* what;
    std::string bytes;
    uint32_t code;
  } cases[] = {
      {"first magic byte", std::string("\x1e\x8b\x08\x00", 4) + std::string(6, '\0') + body, Corrupted},
      {"second magic byte", std::string("\x1f\x8c\x08\x00", 4) + std::string(6, '\0') + body, Corrupted},
      {"method not deflate", std::string("\x1f\x8b\x07\x00", 4) + std::string(6, '\0') + body, Corrupted},
      {"reserved flag 0x20", std::string("\x1f\x8b\x08\x20", 4) + std::string(6, '\0') + body, Corrupted},
      {"reserved flag 0x80", std::string("\x1f\x8b\x08\x80", 4) + std::string(6, '\0') + body, Corrupted},
      {"empty input", "", EndOfFile},
      {"ends in the fixed header", std::string("\x1f\x8b\x08\x00\x00", 5), EndOfFile},
      {"ends in the extra field", std::string("\x1f\x8b\x08\x04", 4) + std::string(6, '\0') + "\x09\x00" "abc",
       EndOfFile},
      {"name without its closing 0", std::string("\x1f\x8b\x08\x08", 4) + std::string(6, '\0') + "name",
       EndOfFile},
  };
  for (const auto& c : cases) {
    buf_ifile<unsigned char> in(c.bytes.data(), c.bytes.size());
    EXPECT_EQ(ThrownCode([&] { i_gzip_file reader(in); }), c.code) << c.what;
  }
}

TEST(GzipReader, InputErrorDuringHeaderIsThrownAndLeavesInputClean) {
  ScriptedInput in(std::string("\x1f\x8b", 2));
  in.failAt = 1;
  in.failCode = ReadError;
  EXPECT_EQ(ThrownCode([&] { i_gzip_file reader(in); }), ReadError);
  EXPECT_FALSE(in.HasError());
}

TEST(GzipReader, DataCutOffInsideDeflateThrowsEndOfFile) {
  const std::string gz = GzipTool(SampleData(100000), "-6");
  const std::string cut = gz.substr(0, gz.size() / 2);
  buf_ifile<unsigned char> in(cut.data(), cut.size());
  i_gzip_file reader(in);
  std::string buffer(200000, '\0');
  uint64_t got = 0;
  EXPECT_EQ(ThrownCode([&] { reader.Read(buffer.data(), buffer.size(), got); }), EndOfFile);
}

TEST(GzipReader, CorruptDeflateDataIsRecordedNotThrown) {
  // Block type 3 does not exist.
  const std::string gz = std::string("\x1f\x8b\x08\x00", 4) + std::string(6, '\0') + "\x07\x00\x00\x00";
  Common::Error error;
  EXPECT_EQ(Inflate(gz, 100, &error), "");
  EXPECT_EQ(error.Code(), Corrupted);
}

TEST(GzipReader, TrailerIsIgnoredAndSecondMemberNotDecoded) {
  const std::string data = SampleData(5000);
  std::string gz = GzipTool(data, "-9 -n");
  const uint64_t deflateEnd = gz.size() - 8;
  gz[gz.size() - 8] ^= 0x55;  // wrong CRC
  gz[gz.size() - 1] ^= 0x55;  // wrong length
  gz += GzipTool("second member", "-n");

  buf_ifile<unsigned char> in(gz.data(), gz.size());
  i_gzip_file reader(in);
  std::string out(10000, '\0');
  uint64_t got = 0;
  reader.Read(out.data(), out.size(), got);
  EXPECT_EQ(out.substr(0, got), data);
  EXPECT_FALSE(reader.HasError());
  EXPECT_TRUE(reader.Finished());
  EXPECT_EQ(reader.CompressedBytesUsed(), deflateEnd);
  reader.Read(out.data(), out.size(), got);
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(reader.HasError());
}

TEST(GzipWriter, EmptyStreamIsValidAndDecompressesToNothing) {
  const std::string gz = Deflate("", 6);
  ASSERT_GE(gz.size(), 18u);
  EXPECT_EQ(gz.substr(0, 4), std::string("\x1f\x8b\x08\x00", 4));
  EXPECT_EQ(gz.substr(8, 2), std::string("\x02\x03", 2));
  EXPECT_EQ(gz.substr(gz.size() - 8), std::string(8, '\0'));
  int status = -1;
  EXPECT_EQ(Gunzip(gz, &status), "");
  EXPECT_EQ(status, 0);
}

TEST(GzipWriter, GzipToolAcceptsWhatWeWriteAtEveryLevel) {
  const std::string data = SampleData(200000, 7);
  for (int level : {0, 1, 6, 9}) {
    for (uint64_t piece : {1ull, 999ull, 1ull << 20}) {
      if (piece == 1 && level != 6) continue;  // byte by byte once is enough
      const std::string gz = Deflate(data, level, piece);
      int status = -1;
      EXPECT_EQ(Gunzip(gz, &status), data) << "level " << level << " piece " << piece;
      EXPECT_EQ(status, 0);
      EXPECT_EQ(gz.substr(gz.size() - 8), Trailer(data));
      EXPECT_EQ(Inflate(gz), data);
    }
  }
}

TEST(GzipWriter, HeaderCarriesTheClock) {
  auto previous = Common::SetClockSource([]() -> uint32_t { return 0x01020304; });
  const std::string gz = Deflate("abc", 6);
  Common::SetClockSource(previous);
  EXPECT_EQ(gz.substr(4, 4), std::string("\x04\x03\x02\x01", 4));
}

TEST(GzipWriter, WriteAfterFlushRecordsEndOfFile) {
  RecordingSink sink;
  o_gzip_file out(sink, 6);
  out.Write("abc", 3);
  out.Flush();
  const size_t size = sink.data.size();
  out.Flush();  // a second Flush does nothing
  EXPECT_EQ(sink.data.size(), size);
  uint64_t written = 7;
  out.Write("d", 1, written);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(out.TakeError().Code(), EndOfFile);
}

TEST(GzipWriter, OutputFailuresMoveIntoTheStream) {
  {
    RecordingSink sink;
    sink.failAt = 1;
    EXPECT_EQ(ThrownCode([&] { o_gzip_file out(sink, 6); }), WriteError);
    EXPECT_FALSE(sink.HasError());
  }
  {
    RecordingSink sink;
    sink.accept = 4;  // short write of the header
    EXPECT_EQ(ThrownCode([&] { o_gzip_file out(sink, 6); }), DiskFull);
  }
  {
    RecordingSink sink;
    o_gzip_file out(sink, 6);
    sink.failAt = sink.writes + 1;
    const std::string data = SampleData(300000);
    uint64_t written = 1;
    out.Write(data.data(), data.size(), written);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(out.GetError().Code(), WriteError);
    EXPECT_FALSE(sink.HasError());
  }
}

TEST(GzipAppender, ResultDecompressesToOldThenNewWithOneChecksum) {
  struct Case {
    const char* what;
    std::string old;
  } cases[] = {
      {"gzip -9, many blocks", GzipTool(SampleData(700000, 3), "-9")},
      {"gzip -1, named", GzipTool(SampleData(100000, 4), "-1")},
      {"less than a window", GzipTool(SampleData(1000, 5), "-6 -n")},
      {"exactly two windows", GzipTool(SampleData(65536, 6), "-6 -n")},
      {"stored blocks: ends on a byte boundary", Deflate(SampleData(70000, 8), 0)},
      {"empty old stream", Deflate("", 6)},
  };
  const std::string more = SampleData(90000, 9);
  for (const auto& c : cases) {
    int status = -1;
    const std::string oldData = Gunzip(c.old, &status);
    ASSERT_EQ(status, 0) << c.what;
    Common::Error error;
    const std::string result = Append(c.old, more, 6, &error);
    EXPECT_FALSE(error.IsError()) << c.what << ": " << test_util::Narrow(Common::ErrorText(error));
    EXPECT_EQ(Gunzip(result, &status), oldData + more) << c.what;
    EXPECT_EQ(status, 0) << c.what;  // gzip checks the combined CRC and length
    EXPECT_EQ(result.substr(result.size() - 8), Trailer(oldData + more)) << c.what;
    EXPECT_EQ(Inflate(result), oldData + more) << c.what;
  }
}

TEST(GzipAppender, CopiesOldCompressedBytesAndCanAppendAgain) {
  const std::string a = SampleData(50000, 11), b = SampleData(40000, 12), c = SampleData(3, 13);
  const std::string first = GzipTool(a, "-9 -n");
  const std::string second = Append(first, b, 1);
  // Old header and deflate data go out as they were but for last-block bits
  // and the held-back closing byte.
  size_t differing = 0;
  for (size_t i = 0; i + 9 < first.size(); ++i) differing += first[i] != second[i];
  EXPECT_LE(differing, 4u);
  EXPECT_EQ(second.substr(0, 10), first.substr(0, 10));
  const std::string third = Append(second, c, 9);
  int status = -1;
  EXPECT_EQ(Gunzip(third, &status), a + b + c);
  EXPECT_EQ(status, 0);
}

TEST(GzipAppender, RefusesDamagedOrExtendedOldStreams) {
  const std::string data = SampleData(20000, 21);
  const std::string gz = GzipTool(data, "-6 -n");
  auto flipped = [&](size_t from_end) {
    std::string s = gz;
    s[s.size() - from_end] ^= 1;
    return s;
  };
  struct Case {
    const char* what;
    std::string old;
    uint32_t code;
  } cases[] = {
      {"wrong CRC", flipped(8), Corrupted},
      {"wrong length", flipped(1), Corrupted},
      {"a second member", gz + GzipTool("x", "-n"), Corrupted},
      {"trailing bytes", gz + std::string(1, '\0'), Corrupted},
      {"trailer cut off", gz.substr(0, gz.size() - 3), EndOfFile},
      {"deflate data cut off", gz.substr(0, gz.size() / 2), EndOfFile},
      {"reserved header flag", std::string("\x1f\x8b\x08\x40", 4) + gz.substr(4), Corrupted},
      {"not gzip", std::string("070701") + std::string(200, '0'), Corrupted},
  };
  for (const auto& c : cases) {
    Common::Error error;
    Append(c.old, "new", 6, &error);
    EXPECT_EQ(error.Code(), c.code) << c.what;
  }
}
