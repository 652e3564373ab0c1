// Any bytes as an XZ stream: data or an error, never a fault, and never an
// allocation beyond the decoder's cap.
#include <cstddef>
#include <cstdint>

#include "file/buf_ifile.h"
#include "file/xzfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  buf_ifile<unsigned char> in(data, size);
  XZDecompressor reader(in);
  unsigned char buffer[8192];
  uint64_t got = 0, total = 0;
  do {
    reader.Read(buffer, sizeof buffer, got);
    if (got > sizeof buffer) __builtin_trap();
    total += got;
  } while (got != 0 && !reader.HasError() && total < (64u << 20));
  if (reader.CompressedBytesUsed() > size) __builtin_trap();
  return 0;
}
