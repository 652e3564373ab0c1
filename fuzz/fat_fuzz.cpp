// FAT volumes from outside, through the whole detection order as the loader
// mounts them; the walk and its promises are those of volume_walk.h.
//
// The input is a sparse disk of 512 MiB (sparse_disk.h): a seed of a few
// sector records stands for a whole volume of tens of megabytes.
#include <cstddef>
#include <cstdint>

#include "volume_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::MountAndWalk(data, size, uint64_t(1) << 20, kDetectAll, 4000);
}
