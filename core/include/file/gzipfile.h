// gzip streams over zlib's raw deflate: a reader, a writer, and an appender
// that extends an existing gzip stream without recompressing it.
//
// zlib only sees raw deflate data (window bits -15); the gzip header and
// trailer are read and written here.  None of the classes owns the streams
// it is given: they must outlive it.
#pragma once

#include <cstdint>
#include <memory>

#include <zlib.h>

#include "file/buffered_pipe.h"
#include "file/file.h"

// Reads the first member of a gzip stream.  The trailer is not checked and
// a second member is not decoded: after the end of the deflate data Read
// delivers 0 bytes.
//
// The constructor throws (a bad header is "The file is corrupted."; input
// that ends inside the header gives 0x40002).  Read records inflate's
// failures, and throws when a refill of its input fails, the end of the
// input inside the deflate data included.
class i_gzip_file final : public i_file, public BufferedPipe {
 public:
  explicit i_gzip_file(i_file& input);
  ~i_gzip_file() override;

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;

  bool Finished() const noexcept { return finished_; }
  // Input bytes taken up so far: the header and the deflate data that zlib
  // consumed.  Once Finished, the 8-byte trailer follows at this offset of
  // the input, which lets a caller find what lies behind the member.
  uint64_t CompressedBytesUsed() const noexcept { return headerSize_ + stream_.total_in; }

 private:
  z_stream stream_{};
  bool open_ = false;
  bool finished_ = false;
  uint64_t headerSize_ = 0;
};

// Writes a gzip stream of one member.  Flush ends the stream (it is not a
// sync point); the destructor does it when nobody did.
class o_gzip_file final : public o_file {
 public:
  static constexpr uint32_t kBufferSize = 32768;

  // A new stream: writes the 10-byte header at once.  Throws 0x40006 when
  // zlib cannot start, and the output's error when the header fails.
  o_gzip_file(o_file& output, int level);
  // Goes on with a deflate state set up elsewhere (the appender's); the CRC
  // comes from its `adler` field and no header is written.
  o_gzip_file(o_file& output, std::unique_ptr<z_stream> stream);
  ~o_gzip_file() override;

  using o_file::Write;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;
  void Flush() override;

 private:
  // Runs deflate over the current input until it needs more (or, when
  // finishing, until the end); false with an error recorded on failure.
  bool Deflate(int flush);

  std::unique_ptr<z_stream> stream_;
  o_file* output_;
  std::unique_ptr<unsigned char[]> buffer_;
  uint32_t crc_ = 0;
  bool finishing_ = false;
  bool ended_ = false;
};

// Extends the gzip stream of `input`: its header and deflate data are copied
// to `output` with the last-block bit of every block cleared, and what is
// written afterwards continues the same deflate stream, with a trailer that
// covers old and new data.  The old data is inflated once, for its CRC and
// for the dictionary, never compressed again.
//
// All reading happens in the constructor, which throws: "The file is
// corrupted." for a bad header, bad deflate data, a trailer whose CRC or
// length disagrees, or anything behind the first member.
class GzipAppender final : public o_file, public BufferedPipe {
 public:
  static constexpr uint32_t kWindowSize = 32768;

  GzipAppender(i_file& input, o_file& output, int level);
  ~GzipAppender() override;

  using o_file::Write;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;
  void Flush() override;

 private:
  void Consume(int level);
  unsigned char NextByte();
  uint32_t ReadLe32();

  z_stream inflater_{};
  bool inflateOpen_ = false;
  o_file* output_;
  std::unique_ptr<o_gzip_file> inner_;
};

std::unique_ptr<i_gzip_file> CreateGzipReader(i_file& input);
std::unique_ptr<o_gzip_file> CreateGzipWriter(o_file& output, int level);
std::unique_ptr<GzipAppender> CreateGzipAppender(i_file& input, o_file& output, int level);
