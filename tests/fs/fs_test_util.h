// Helpers of the disk and file-system tests: scratch directories, images
// made by the real tools (mkfs.fat, mtools, sfdisk, sgdisk), and a memory
// disk that counts and fails on request.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "fdisk/ver2/simpdisk.h"
#include "file/dir.h"
#include "file/external_tools.h"
#include "test_util.h"

namespace fs_test {

using test_util::ReadFile;
using test_util::TempDir;
using test_util::WriteFile;

// Runs a shell command; false (with the command in the test's log) when it
// fails.
inline bool Run(const std::string& command) {
  const int rc = std::system(("(" + command + ") >/dev/null 2>&1").c_str());
  if (rc != 0) ADD_FAILURE() << "command failed: " << command;
  return rc == 0;
}

// Bytes that differ from file to file and from block to block, so that a
// misplaced cluster never reads back as right.
inline std::string Pattern(size_t size, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = char(gen() >> 24);
  return s;
}

// mtools on an image, without its checks of the host's drive table.
inline std::string Mtools(const std::string& tool, const std::string& image, const std::string& args) {
  return "MTOOLS_SKIP_CHECK=1 MTOOLS_NO_VFAT=0 " + tool + " -i '" + image + "' " + args;
}

// A memory disk that counts its reads and can refuse reads or writes.
class MemoryDisk final : public Fdisk::SimpleDisk {
 public:
  MemoryDisk(std::string bytes, uint32_t sectorSize) : bytes_(std::move(bytes)) {
    sectorSize_ = sectorSize;
    lastSector_ = bytes_.size() / sectorSize - 1;
  }

  Common::Error IoOp(uint32_t op, uint64_t sector, void* buffer, uint64_t count) override {
    if (op == Fdisk::DiskFlush) return Common::Error();
    if (sector > lastSector_ || count > lastSector_ + 1 - sector)
      return Common::Error(ERROR_HERE, Fdisk::Codes::InvalidParameter, u"One of the parameters has an invalid value.");
    if (op == Fdisk::DiskRead) {
      ++reads;
      sectorsRead += count;
      for (uint64_t s = sector; s < sector + count; ++s)
        if (failingSectors.count(s))
          return Common::Error(ERROR_HERE, Fdisk::Codes::DeviceError, u"A device error.");
      std::memcpy(buffer, bytes_.data() + sector * sectorSize_, count * sectorSize_);
      return Common::Error();
    }
    if (op == Fdisk::DiskWrite) {
      ++writes;
      if (writeProtected) return Common::Error(ERROR_HERE, Fdisk::Codes::WriteProtected, u"Write protected.");
      std::memcpy(bytes_.data() + sector * sectorSize_, buffer, count * sectorSize_);
      return Common::Error();
    }
    return Fdisk::InvalidOperationError(ERROR_HERE);
  }

  std::string& Bytes() { return bytes_; }

  std::set<uint64_t> failingSectors;
  bool writeProtected = false;
  int reads = 0;
  uint64_t sectorsRead = 0;
  int writes = 0;

 private:
  std::string bytes_;
};

// Everything below a directory: "path" -> contents ("/" marks directories).
struct TreeEntry {
  std::string path;
  bool directory;
  std::string data;
};

// Reads a whole file through the stream face; fails the test on an error.
inline std::string ReadAll(ri_file& file) {
  std::string out;
  const int64_t size = file.GetSize();
  if (size < 0) {
    ADD_FAILURE() << "GetSize failed: " << test_util::Narrow(Common::ErrorText(file.TakeError()));
    return out;
  }
  out.resize(size_t(size));
  uint64_t got = 0;
  if (size > 0) file.Read(out.data(), uint64_t(size), got);
  if (file.HasError()) ADD_FAILURE() << test_util::Narrow(Common::ErrorText(file.TakeError()));
  out.resize(size_t(got));
  return out;
}

}  // namespace fs_test
