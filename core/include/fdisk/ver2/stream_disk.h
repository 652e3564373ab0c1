// A sector device over a random-access stream: an image file on the host,
// a block of memory in the fuzz targets and the tests.  The disk ends at
// the last whole sector of the stream.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fdisk/ver2/simpdisk.h"
#include "file/file.h"

namespace Fdisk {

class StreamDisk final : public SimpleDisk {
 public:
  // `sectorSize` must be a power of two from 512 to 65536 and the stream
  // at least one sector long; otherwise `error` says why and the disk has
  // no sectors.  With `writable` set, a stream that is also a ro_file can
  // be written.
  StreamDisk(std::shared_ptr<ri_file> stream, uint32_t sectorSize, Common::Error& error,
             bool writable = false);

  // A sector range past the end is refused with "One of the parameters has
  // an invalid value."; a failing stream gives "A device error." with the
  // stream's error as cause; writing a read-only stream "Write protected.".
  Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t sectorCount) override;

  uint64_t SectorCount() const { return sectors_; }

 private:
  std::shared_ptr<ri_file> stream_;
  ro_file* writable_ = nullptr;
  uint64_t sectors_ = 0;
};

// An image file on the host as a disk; host builds only.
std::unique_ptr<StreamDisk> OpenImageDisk(const std::string& path, bool writable,
                                          uint32_t sectorSize, Common::Error& error);

}  // namespace Fdisk
