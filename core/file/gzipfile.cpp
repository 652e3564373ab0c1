#include "file/gzipfile.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/clock.h"

using namespace Common::Codes;

namespace {

constexpr int kWindowBits = -15;  // raw deflate: the framing is ours
constexpr int kMemLevel = 8;
constexpr int kMethod = Z_DEFLATED;
constexpr int kStrategy = Z_DEFAULT_STRATEGY;
// zlib counts in 32-bit units; larger requests go in slices of this size.
constexpr uint64_t kSlice = 0x40000000;

enum : unsigned char {
  kFlagHeaderCrc = 0x02,
  kFlagExtra = 0x04,
  kFlagName = 0x08,
  kFlagComment = 0x10,
  kFlagsReserved = 0xe0,
};

unsigned char PipeByte(BufferedPipe& pipe) {
  if (pipe.count == 0) pipe.Readmore();
  --pipe.count;
  return *pipe.cursor++;
}

// Steps over a gzip member header through the pipe, so that with a tee the
// header passes on unchanged.  Gives the header's length.
uint64_t SkipGzipHeader(BufferedPipe& pipe) {
  uint64_t length = 0;
  auto next = [&] {
    ++length;
    return PipeByte(pipe);
  };
  if (next() != 0x1f || next() != 0x8b || next() != 8) THROW_ERROR(Corrupted);
  const unsigned char flags = next();
  if (flags & kFlagsReserved) THROW_ERROR(Corrupted);
  for (int i = 0; i < 6; ++i) next();  // time, extra flags, system
  if (flags & kFlagExtra) {
    uint32_t extra = next();
    extra |= uint32_t(next()) << 8;
    while (extra--) next();
  }
  if (flags & kFlagName)
    while (next() != 0) {
    }
  if (flags & kFlagComment)
    while (next() != 0) {
    }
  if (flags & kFlagHeaderCrc) {
    next();
    next();
  }
  return length;
}

void PutLe32(unsigned char* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}

uInt SliceOf(uint64_t n) { return static_cast<uInt>(std::min(n, kSlice)); }

// Writes all of `data` to `out`; its error (a short write being "The disk
// is full.") is taken out and thrown.
void WriteOrThrow(o_file& out, const void* data, uint64_t size) {
  out.Write(data, size);
  if (out.HasError()) throw out.TakeError();
}

}  // namespace

// ---- i_gzip_file -------------------------------------------------------------

i_gzip_file::i_gzip_file(i_file& input) : BufferedPipe(&input, nullptr) {
  if (inflateInit2(&stream_, kWindowBits) != Z_OK) THROW_ERROR(NotEnoughMemory);
  open_ = true;
  try {
    headerSize_ = SkipGzipHeader(*this);
  } catch (...) {
    inflateEnd(&stream_);
    throw;
  }
}

i_gzip_file::~i_gzip_file() {
  if (open_) inflateEnd(&stream_);
}

void i_gzip_file::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (finished_ || HasError()) return;
  auto* out = static_cast<unsigned char*>(buffer);
  stream_.next_in = cursor;
  stream_.avail_in = count;
  while (got < size) {
    if (stream_.avail_in == 0) {
      cursor = stream_.next_in;
      count = 0;
      Readmore();  // throws at the end of the input: the data is cut off
      stream_.next_in = cursor;
      stream_.avail_in = count;
    }
    const uInt room = SliceOf(size - got);
    stream_.next_out = out + got;
    stream_.avail_out = room;
    const int result = inflate(&stream_, Z_NO_FLUSH);
    cursor = stream_.next_in;
    count = stream_.avail_in;
    got += room - stream_.avail_out;
    if (result == Z_MEM_ERROR) {
      SetError(ERROR_HERE, NotEnoughMemory);
      return;
    }
    if (static_cast<unsigned>(result) > 1) {
      SetError(ERROR_HERE, Corrupted);
      return;
    }
    if (result == Z_STREAM_END) {
      finished_ = true;
      return;
    }
  }
}

// ---- o_gzip_file -------------------------------------------------------------

o_gzip_file::o_gzip_file(o_file& output, int level)
    : stream_(new (std::nothrow) z_stream{}), output_(&output),
      buffer_(new (std::nothrow) unsigned char[kBufferSize]) {
  if (!stream_ || !buffer_) THROW_ERROR(NotEnoughMemory);
  if (deflateInit2(stream_.get(), level, kMethod, kWindowBits, kMemLevel, kStrategy) != Z_OK) {
    stream_.reset();
    THROW_ERROR(NotEnoughMemory);
  }
  unsigned char header[10] = {0x1f, 0x8b, 8, 0};
  PutLe32(header + 4, Common::CurrentTimeSeconds());
  header[8] = 2;  // extra flags as the format's writers set them
  header[9] = 3;  // system: Unix
  try {
    WriteOrThrow(output, header, sizeof header);
  } catch (...) {
    deflateEnd(stream_.get());
    stream_.reset();
    throw;
  }
  crc_ = crc32(0, nullptr, 0);
}

o_gzip_file::o_gzip_file(o_file& output, std::unique_ptr<z_stream> stream)
    : stream_(std::move(stream)), output_(&output),
      buffer_(new (std::nothrow) unsigned char[kBufferSize]) {
  if (!buffer_) {
    deflateEnd(stream_.get());
    stream_.reset();
    THROW_ERROR(NotEnoughMemory);
  }
  crc_ = static_cast<uint32_t>(stream_->adler);
}

o_gzip_file::~o_gzip_file() {
  if (!stream_) return;
  if (!finishing_ && !HasError()) Flush();
  deflateEnd(stream_.get());
}

bool o_gzip_file::Deflate(int flush) {
  for (;;) {
    stream_->next_out = buffer_.get();
    stream_->avail_out = kBufferSize;
    const int result = deflate(stream_.get(), flush);
    if (static_cast<unsigned>(result) > 1) {
      SetError(ERROR_HERE, NotEnoughMemory);
      return false;
    }
    const uint64_t produced = kBufferSize - stream_->avail_out;
    if (produced != 0) {
      output_->Write(buffer_.get(), produced);
      if (TakeErrorFrom(*output_)) return false;
    }
    if (result == Z_STREAM_END || stream_->avail_out != 0) return true;
  }
}

void o_gzip_file::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  if (HasError()) return;
  if (ended_) {
    SetError(ERROR_HERE, EndOfFile);
    return;
  }
  // With nothing to add and no end to make, deflate would only report that
  // it cannot make progress.
  if (size == 0 && !finishing_) return;
  const auto* in = static_cast<const Bytef*>(buffer);
  uint64_t done = 0;
  do {
    const uInt slice = SliceOf(size - done);
    stream_->next_in = const_cast<Bytef*>(in + done);
    stream_->avail_in = slice;
    if (slice != 0) crc_ = static_cast<uint32_t>(crc32(crc_, in + done, slice));
    done += slice;
    const bool last = done == size;
    if (!Deflate(finishing_ && last ? Z_FINISH : Z_NO_FLUSH)) return;
  } while (done < size);
  written = size;
  if (finishing_) ended_ = true;
}

void o_gzip_file::Flush() {
  if (finishing_ || HasError()) return;
  finishing_ = true;
  uint64_t ignored = 0;
  Write(nullptr, 0, ignored);
  if (HasError()) return;
  unsigned char trailer[8];
  PutLe32(trailer, crc_);
  PutLe32(trailer + 4, static_cast<uint32_t>(stream_->total_in));
  output_->Write(trailer, sizeof trailer);
  TakeErrorFrom(*output_);
}

// ---- GzipAppender ------------------------------------------------------------

unsigned char GzipAppender::NextByte() { return PipeByte(*this); }

uint32_t GzipAppender::ReadLe32() {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= uint32_t(NextByte()) << (8 * i);
  return v;
}

GzipAppender::GzipAppender(i_file& input, o_file& output, int level)
    : BufferedPipe(&input, &output), output_(&output) {
  if (inflateInit2(&inflater_, kWindowBits) != Z_OK) THROW_ERROR(NotEnoughMemory);
  inflateOpen_ = true;
  try {
    Consume(level);
  } catch (...) {
    if (inflateOpen_) inflateEnd(&inflater_);
    throw;
  }
}

// Everything after the inflater is open; the constructor closes it when
// this throws.
void GzipAppender::Consume(int level) {
  SkipGzipHeader(*this);

  std::unique_ptr<unsigned char[]> window(new (std::nothrow) unsigned char[kWindowSize]);
  if (!window) THROW_ERROR(NotEnoughMemory);
  uint32_t crc = static_cast<uint32_t>(crc32(0, nullptr, 0));
  uint32_t have = 0;
  bool first = true;  // the next byte given to inflate starts a block
  bool wrapped = false;
  unsigned left = 0;  // unused bits in the last byte of the deflate data

  inflater_.next_in = cursor;
  inflater_.avail_in = count;
  for (;;) {
    if (inflater_.avail_in == 0) {
      cursor = inflater_.next_in;
      count = 0;
      Readmore();
      inflater_.next_in = cursor;
      inflater_.avail_in = count;
    }
    inflater_.next_out = window.get() + have;
    inflater_.avail_out = kWindowSize - have;
    const int result = inflate(&inflater_, Z_BLOCK);
    if (result == Z_MEM_ERROR) THROW_ERROR(NotEnoughMemory);
    if (static_cast<unsigned>(result) > 1) THROW_ERROR(Corrupted);
    // The byte that inflate began with opens a block: drop its last-block
    // bit in the copy that goes to the output.
    if (first) *cursor &= 0xfe;
    cursor = inflater_.next_in;
    count = inflater_.avail_in;
    const uint32_t added = kWindowSize - have - inflater_.avail_out;
    crc = static_cast<uint32_t>(crc32(crc, window.get() + have, added));
    if (inflater_.avail_out == 0) {
      wrapped = true;
      have = 0;
    } else {
      have = kWindowSize - inflater_.avail_out;
    }
    first = false;

    const int type = inflater_.data_type;
    if (type & 0x80) {
      if (type & 0x40) {
        left = type & 0x1f;
      } else {
        // End of a block that is not the last: the next block's header
        // starts right behind, in this byte's unused bits or the next byte.
        const unsigned bits = type & 0x1f;
        if (bits == 0) {
          first = true;
        } else {
          if (bits > 8 || cursor == base) THROW_ERROR(Corrupted);
          const unsigned shift = 8 - bits;
          const unsigned char mask =
              static_cast<unsigned char>((0xfeu << shift) | (0xfeu >> (8 - shift)));
          cursor[-1] &= mask;
        }
      }
    }
    if (result == Z_STREAM_END) break;
  }

  inflateOpen_ = false;
  const uint64_t total = inflater_.total_out;
  inflateEnd(&inflater_);

  unsigned char lastByte = 0;
  if (left != 0) {
    // The closing bits of the old data are handed to the deflater instead.
    if (cursor == base) THROW_ERROR(Corrupted);
    --cursor;
    ++count;
    lastByte = *cursor;
  }
  WriteToTee(cursor);
  tee = nullptr;
  if (left != 0) {
    ++cursor;
    --count;
  }

  if (ReadLe32() != crc) THROW_ERROR(Corrupted);
  if (ReadLe32() != static_cast<uint32_t>(total)) THROW_ERROR(Corrupted);
  if (count != 0) THROW_ERROR(Corrupted);
  try {
    Readmore();
  } catch (const Common::Error& e) {
    if (e.Code() != EndOfFile) throw;
  }
  if (count != 0) THROW_ERROR(Corrupted);

  // The dictionary is the last 32 KiB of old data in their order.
  uint32_t dictLength = have;
  if (wrapped) {
    std::rotate(window.get(), window.get() + have, window.get() + kWindowSize);
    dictLength = kWindowSize;
  }

  std::unique_ptr<z_stream> deflater(new (std::nothrow) z_stream{});
  if (!deflater) THROW_ERROR(NotEnoughMemory);
  if (deflateInit2(deflater.get(), level, kMethod, kWindowBits, kMemLevel, kStrategy) != Z_OK)
    THROW_ERROR(NotEnoughMemory);
  if ((dictLength != 0 && deflateSetDictionary(deflater.get(), window.get(), dictLength) != Z_OK) ||
      (left != 0 && deflatePrime(deflater.get(), int(8 - left), lastByte) != Z_OK)) {
    deflateEnd(deflater.get());
    THROW_ERROR(NotEnoughMemory);
  }
  deflater->total_in = total;
  deflater->adler = crc;
  inner_.reset(new o_gzip_file(*output_, std::move(deflater)));
}

GzipAppender::~GzipAppender() {
  if (inflateOpen_) inflateEnd(&inflater_);
  inner_.reset();
}

void GzipAppender::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  if (HasError()) return;
  inner_->Write(buffer, size, written);
  TakeErrorFrom(*inner_);
}

void GzipAppender::Flush() {
  if (HasError()) return;
  inner_->Flush();
  TakeErrorFrom(*inner_);
}

std::unique_ptr<i_gzip_file> CreateGzipReader(i_file& input) {
  return std::make_unique<i_gzip_file>(input);
}

std::unique_ptr<o_gzip_file> CreateGzipWriter(o_file& output, int level) {
  return std::make_unique<o_gzip_file>(output, level);
}

std::unique_ptr<GzipAppender> CreateGzipAppender(i_file& input, o_file& output, int level) {
  return std::make_unique<GzipAppender>(input, output, level);
}
