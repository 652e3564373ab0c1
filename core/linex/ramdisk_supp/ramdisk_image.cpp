#include "linex/ramdisk_image.h"

#include <cstring>

#include "file/gzipfile.h"
#include "file/xzfile.h"

using namespace Common::Codes;

namespace LinuxEx {

namespace {

constexpr unsigned char kGzipMagic[2] = {0x1f, 0x8b};
constexpr unsigned char kXzMagic[6] = {0xfd, '7', 'z', 'X', 'Z', 0};
constexpr uint64_t kGzipTrailerSize = 8;

// Passes what it reads on to `sink` (when there is one).
class TeeInput final : public i_file {
 public:
  TeeInput(i_file& inner, o_file* sink) : inner_(&inner), sink_(sink) {}

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override {
    got = 0;
    if (HasError()) return;
    inner_->Read(buffer, size, got);
    if (TakeErrorFrom(*inner_)) return;
    if (sink_ != nullptr && got != 0) {
      sink_->Write(buffer, got);
      if (TakeErrorFrom(*sink_)) got = 0;
    }
  }

 private:
  i_file* inner_;
  o_file* sink_;
};

// Shows every node to the caller; on a plain segment it also stops the
// processor at the trailer, since what follows may be compressed.
class SegmentFilter final : public InputFilter {
 public:
  using Visit = std::function<Common::Error(const RamdiskNode&, const RamdiskSegment&)>;
  SegmentFilter(const Visit& visit, RamdiskSegment segment, const Common::Error* stop)
      : visit_(visit), segment_(segment), stop_(stop) {}

  Common::Error Filter(const RamdiskNode& node) override {
    Common::Error e = visit_(node, segment_);
    if (e.IsError()) return e;
    if (stop_ != nullptr && NormalizeRamdiskName(node.name) == kTrailerName) return *stop_;
    return Common::Error();
  }

 private:
  const Visit& visit_;
  RamdiskSegment segment_;
  const Common::Error* stop_;
};

// Runs a processor over `input`; true if the filter's stop ended it.
bool WalkArchives(i_file& input, const SegmentFilter::Visit& visit, RamdiskSegment segment,
                  const Common::Error* stop) {
  auto processor = CreateRamdiskProcessor(&input, nullptr, false);
  std::unique_ptr<InputFilter> filter = std::make_unique<SegmentFilter>(visit, segment, stop);
  processor->SetFilter(filter);
  try {
    processor->Commit(false, false);
  } catch (const Common::Error& e) {
    if (stop != nullptr && e.Record() == stop->Record()) return true;
    throw;
  }
  return false;
}

// Reads what the processor left of a decoded stream (after an empty-name
// node, say), so that the compressed segment's end is known.
void Drain(i_file& input) {
  unsigned char buffer[4096];
  uint64_t got = 0;
  do {
    input.Read(buffer, sizeof buffer, got);
    if (input.HasError()) throw input.TakeError();
  } while (got != 0);
}

// The offset of the first byte at or after `offset` that is not 0, or the
// size when there is none.
uint64_t SkipZeros(ri_file& image, uint64_t offset, uint64_t size) {
  unsigned char buffer[4096];
  image.Seek(static_cast<int64_t>(offset));
  while (offset < size) {
    uint64_t got = 0;
    image.Read(buffer, sizeof buffer, got);
    if (image.HasError()) throw image.TakeError();
    if (got == 0) return size;
    for (uint64_t i = 0; i < got; ++i)
      if (buffer[i] != 0) return offset + i;
    offset += got;
  }
  return size;
}

}  // namespace

const char* SegmentKindName(RamdiskSegmentKind kind) {
  switch (kind) {
    case RamdiskSegmentKind::kPlain:
      return "cpio";
    case RamdiskSegmentKind::kGzip:
      return "gzip";
    case RamdiskSegmentKind::kXz:
      return "xz";
  }
  return "?";
}

void WalkRamdiskImage(ri_file& image,
                      const std::function<Common::Error(const RamdiskNode&, const RamdiskSegment&)>& visit,
                      o_file* decoded) {
  const int64_t signedSize = image.GetSize();
  if (image.HasError()) throw image.TakeError();
  if (signedSize < 0) THROW_ERROR(ReadError);
  const uint64_t size = static_cast<uint64_t>(signedSize);
  const Common::Error stop = Common::MakeError(ERROR_HERE, StreamCanceled);

  uint64_t offset = 0;
  for (;;) {
    offset = SkipZeros(image, offset, size);
    if (offset >= size) return;
    unsigned char magic[6] = {};
    image.Seek(static_cast<int64_t>(offset));
    uint64_t got = 0;
    image.Read(magic, sizeof magic, got);
    if (image.HasError()) throw image.TakeError();
    image.Seek(static_cast<int64_t>(offset));

    RamdiskSegment segment{RamdiskSegmentKind::kPlain, offset};
    if (got == 6 && std::memcmp(magic, kCpioMagic, 6) == 0) {
      TeeInput input(image, decoded);
      if (!WalkArchives(input, visit, segment, &stop)) return;  // the image ended
      const int64_t at = image.SeekCur(0);
      if (image.HasError()) throw image.TakeError();
      offset = static_cast<uint64_t>(at);
    } else if (got >= 2 && std::memcmp(magic, kGzipMagic, 2) == 0) {
      segment.kind = RamdiskSegmentKind::kGzip;
      i_gzip_file gzip(image);
      TeeInput input(gzip, decoded);
      WalkArchives(input, visit, segment, nullptr);
      Drain(input);
      offset += gzip.CompressedBytesUsed() + kGzipTrailerSize;
      if (offset > size) THROW_ERROR(Corrupted);
    } else if (got == 6 && std::memcmp(magic, kXzMagic, 6) == 0) {
      segment.kind = RamdiskSegmentKind::kXz;
      XZDecompressor xz(image);
      TeeInput input(xz, decoded);
      WalkArchives(input, visit, segment, nullptr);
      Drain(input);
      if (!xz.StreamFinished()) THROW_ERROR(Corrupted);
      offset += xz.CompressedBytesUsed();
    } else {
      THROW_ERROR(Corrupted);
    }
  }
}

}  // namespace LinuxEx
