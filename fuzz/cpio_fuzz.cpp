// Any bytes as a RAM disk image: the walk (plain, gzip and xz segments) and
// the processor with an output and a capture must end in data or an error.
// What the processor writes must read back as an archive.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "file/buf_ifile.h"
#include "file/memfile.h"
#include "linex/ramdisk.h"
#include "linex/ramdisk_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    buf_ifile<unsigned char> image(data, size);
    Common::MemoryFileImpl decoded;
    try {
      LinuxEx::WalkRamdiskImage(
          image,
          [](const LinuxEx::RamdiskNode& node, const LinuxEx::RamdiskSegment&) {
            if (node.name.size() >= LinuxEx::kMaxNameSize) __builtin_trap();
            return Common::Error();
          },
          &decoded);
    } catch (const Common::Error&) {
    }
  }
  {
    buf_ifile<unsigned char> in(data, size);
    Common::MemoryFileImpl out;
    auto captured = std::make_shared<Common::MemoryFileImpl>();
    bool written = false;
    try {
      auto processor = LinuxEx::CreateRamdiskProcessor(&in, &out, false);
      processor->Remove("*.ko");
      processor->Keep("lib/keep*");
      processor->Extract("etc/config", captured);
      processor->AddFile("etc/added", "x", 1);
      processor->Commit(true, true);
      written = true;
    } catch (const Common::Error&) {
    }
    if (written) {
      out.Rewind();
      try {
        LinuxEx::CreateRamdiskProcessor(&out, nullptr, false)->Commit(false, false);
      } catch (const Common::Error&) {
        __builtin_trap();  // our own output must be a valid archive
      }
    }
  }
  return 0;
}
