// A RAM disk image as boot loaders hand it to the kernel: archives one
// behind the other, each plain cpio, gzip or xz, with zero bytes between
// them (distributions ship an uncompressed early archive in front of a
// compressed main one).  The walk uses the loader's own readers.
#pragma once

#include <cstdint>
#include <functional>

#include "common/error.h"
#include "file/file.h"
#include "linex/ramdisk.h"

namespace LinuxEx {

enum class RamdiskSegmentKind { kPlain, kGzip, kXz };

struct RamdiskSegment {
  RamdiskSegmentKind kind;
  uint64_t offset;  // where the segment starts in the image
};

const char* SegmentKindName(RamdiskSegmentKind kind);

// Calls `visit` for every node of every archive in `image`, trailers
// included, with the segment it lies in.  With `decoded`, the decoded bytes
// of every segment are copied there as the walk reads them.
//
// Throws: "The file is corrupted." for a segment that begins with anything
// but a cpio, gzip or xz magic, for a cut-off xz stream or gzip trailer;
// the readers' and the processor's errors; an error `visit` returns.
void WalkRamdiskImage(ri_file& image,
                      const std::function<Common::Error(const RamdiskNode&, const RamdiskSegment&)>& visit,
                      o_file* decoded = nullptr);

}  // namespace LinuxEx
