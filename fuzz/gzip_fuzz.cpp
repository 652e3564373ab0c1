// Any bytes as a gzip stream: the reader and the appender must answer with
// an error or data, never fault, and the appender's output must stay
// readable by the reader.
#include <cstddef>
#include <cstdint>
#include <string>

#include "file/buf_ifile.h"
#include "file/gzipfile.h"
#include "file/memfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    buf_ifile<unsigned char> in(data, size);
    try {
      i_gzip_file reader(in);
      unsigned char buffer[4096];
      uint64_t got = 0, total = 0;
      do {
        reader.Read(buffer, sizeof buffer, got);
        total += got;
      } while (got != 0 && !reader.HasError() && total < (64u << 20));
      if (reader.Finished() && reader.CompressedBytesUsed() > size) __builtin_trap();
    } catch (const Common::Error&) {
    }
  }
  {
    buf_ifile<unsigned char> in(data, size);
    Common::MemoryFileImpl out;
    bool appended = false;
    try {
      GzipAppender appender(in, out, 6);
      appender.Write("appended", 8);
      appender.Flush();
      appended = !appender.HasError();
    } catch (const Common::Error&) {
    }
    if (appended) {
      // An accepted stream was whole; what came out must read to its end.
      out.Rewind();
      i_gzip_file reader(out);
      unsigned char buffer[4096];
      uint64_t got = 0;
      do reader.Read(buffer, sizeof buffer, got);
      while (got != 0 && !reader.HasError());
      if (reader.HasError() || !reader.Finished()) __builtin_trap();
    }
  }
  return 0;
}
