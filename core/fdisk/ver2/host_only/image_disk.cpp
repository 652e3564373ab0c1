// Image files on the host as disks, for loader-tool and the tests.
#include "fdisk/ver2/stream_disk.h"
#include "file/posix_file.h"

namespace Fdisk {

std::unique_ptr<StreamDisk> OpenImageDisk(const std::string& path, bool writable,
                                          uint32_t sectorSize, Common::Error& error) {
  std::shared_ptr<PosixFile> file =
      PosixFile::Open(path, writable ? PosixFile::Mode::ReadWrite : PosixFile::Mode::Read, error);
  if (!file) return nullptr;
  auto disk = std::make_unique<StreamDisk>(file, sectorSize, error, writable);
  if (error.IsError()) return nullptr;
  return disk;
}

}  // namespace Fdisk
