// ext volumes from outside, through the ext row of the mount table; the
// walk and its promises are those of volume_walk.h.
//
// The input is a sparse disk of 64 MiB (sparse_disk.h): a seed of a few
// sector records stands for a whole volume made by mke2fs.
#include <cstddef>
#include <cstdint>

#include "volume_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::MountAndWalk(data, size, uint64_t(1) << 17, kCreateExt, 2000);
}
