// Images of several archives, as distributions ship them: segments found
// by their magic, each decoded by the loader's own reader.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "file/buf_ifile.h"
#include "file/external_tools.h"
#include "file/fake_streams.h"
#include "linex/ramdisk_image.h"
#include "ramdisk/cpio_builder.h"
#include "test_util.h"

using namespace LinuxEx;
using namespace Common::Codes;
using test_util::CpioBytes;
using test_util::CpioTrailer;
using test_util::RunFilter;
using test_util::ThrownCode;

namespace {

struct Seen {
  std::string name;
  RamdiskSegmentKind kind;
  uint64_t offset;
};

std::vector<Seen> WalkImage(const std::string& image, std::string* decoded = nullptr) {
  buf_ifile<unsigned char> in(image.data(), image.size());
  std::vector<Seen> seen;
  test_util::RecordingSink sink;
  WalkRamdiskImage(
      in,
      [&](const RamdiskNode& node, const RamdiskSegment& segment) {
        if (node.name != "TRAILER!!!") seen.push_back({node.name, segment.kind, segment.offset});
        return Common::Error();
      },
      decoded ? &sink : nullptr);
  if (decoded) *decoded = sink.data;
  return seen;
}

std::string Archive(const std::string& prefix, int files) {
  std::string a;
  for (int i = 0; i < files; ++i)
    a += CpioBytes({prefix + std::to_string(i), 0100644, std::string(size_t(i * 37), char('a' + i))});
  a += CpioTrailer();
  a.append((512 - a.size() % 512) % 512, '\0');
  return a;
}

}  // namespace

TEST(RamdiskImage, EarlyPlainArchiveThenCompressedMainOne) {
  const std::string early = Archive("kernel/x86/microcode/", 2);
  const std::string main = Archive("usr/lib/", 5);
  for (const char* compressor : {"gzip -9c", "xz -c --check=crc32"}) {
    const std::string packed = RunFilter(compressor, main);
    const std::string image = early + packed;
    std::string decoded;
    const auto seen = WalkImage(image, &decoded);
    ASSERT_EQ(seen.size(), 7u) << compressor;
    EXPECT_EQ(seen[0].kind, RamdiskSegmentKind::kPlain);
    EXPECT_EQ(seen[0].offset, 0u);
    EXPECT_EQ(seen[2].name, "usr/lib/0");
    EXPECT_EQ(seen[2].kind, compressor[0] == 'g' ? RamdiskSegmentKind::kGzip : RamdiskSegmentKind::kXz);
    EXPECT_EQ(seen[2].offset, early.size());
    // The plain segment is copied up to its trailer, then the decoded rest.
    const size_t earlyEnd = (early.find("TRAILER!!!") + 11 + 3) & ~size_t(3);
    EXPECT_EQ(decoded, early.substr(0, earlyEnd) + main) << compressor;
  }
}

TEST(RamdiskImage, SegmentsOfEveryKindWithZerosBetween) {
  const std::string a = Archive("a", 1), b = Archive("b", 2), c = Archive("c", 3), d = Archive("d", 1);
  // An xz stream is decoded in blocks of input: it goes last, or before
  // further xz streams only.
  const std::string image = RunFilter("gzip -1c", a) + std::string(3, '\0') + c + RunFilter("gzip -c", d) +
                            std::string(8, '\0') + RunFilter("xz -c", b);
  std::vector<std::string> names;
  for (const auto& s : WalkImage(image)) names.push_back(s.name);
  EXPECT_EQ(names, (std::vector<std::string>{"a0", "c0", "c1", "c2", "d0", "b0", "b1"}));
}

TEST(RamdiskImage, MultiStreamXzAndMultiMemberGzip) {
  const std::string a = Archive("one", 2), b = Archive("two", 2);
  for (const char* tool : {"xz -c --check=crc64", "gzip -c"}) {
    const std::string image = RunFilter(tool, a) + RunFilter(tool, b);
    EXPECT_EQ(WalkImage(image).size(), 4u) << tool;
  }
}

TEST(RamdiskImage, DamagedImagesAreRefused) {
  const std::string a = Archive("a", 2);
  const std::string gz = RunFilter("gzip -c", a), xz = RunFilter("xz -c", a);
  struct Case {
    const char* what;
    std::string image;
    uint32_t code;
  } cases[] = {
      {"unknown magic", "junk", Corrupted},
      {"unknown magic behind an archive", a + "PK\x03\x04", Corrupted},
      {"gzip trailer cut off", gz.substr(0, gz.size() - 4), Corrupted},
      {"gzip deflate data cut off", gz.substr(0, gz.size() / 2), EndOfFile},
      {"xz cut off", xz.substr(0, xz.size() - 20), Corrupted},
      {"bad node inside gzip", RunFilter("gzip -c", "070701zzzz" + std::string(200, '0')), Corrupted},
  };
  for (const auto& c : cases) EXPECT_EQ(ThrownCode([&] { WalkImage(c.image); }), c.code) << c.what;
}

TEST(RamdiskImage, VisitorErrorStopsTheWalk) {
  const std::string image = Archive("a", 3);
  buf_ifile<unsigned char> in(image.data(), image.size());
  int calls = 0;
  EXPECT_EQ(ThrownCode([&] {
              WalkRamdiskImage(in, [&](const RamdiskNode&, const RamdiskSegment&) {
                return ++calls == 2 ? Common::MakeError(ERROR_HERE, RamdiskUnexpectedNode) : Common::Error();
              });
            }),
            RamdiskUnexpectedNode);
  EXPECT_EQ(calls, 2);
}
