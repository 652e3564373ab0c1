// XFS volumes from outside, through the XFS row of the mount table; the
// walk and its promises are those of volume_walk.h.
//
// The input is a sparse disk of 320 MiB (sparse_disk.h): a seed of about a
// hundred sector records stands for a whole volume made by mkfs.xfs, which
// makes nothing smaller than 300 MiB.
#include <cstddef>
#include <cstdint>

#include "volume_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::MountAndWalk(data, size, uint64_t(320) << 11, kCreateXfs, 2000);
}
