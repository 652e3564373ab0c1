// PosixFile: a random-access read-write stream over a POSIX file descriptor.
// Host only (loader-tool and the tests): the firmware build has no POSIX.
//
// Failures follow the stream protocol: the first one is kept and every later
// operation does nothing until TakeError.  The record of a failed system call
// has the errno value as the code of its cause, with the call, the path and
// strerror as the cause's text.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "file/file.h"

class PosixFile final : public rio_file {
 public:
  enum class Mode {
    Read,        // existing file, read only
    ReadWrite,   // existing file, read and write
    Create,      // read and write; created if missing, emptied if present
    CreateNew,   // read and write; fails with 0x40013 if the path exists
  };

  // Opens `path`.  On failure gives null and sets `error`: 0x40011 for a
  // missing file, 0x40014 for a denied one, 0x40013 for CreateNew on an
  // existing path, 0x40007 (or 0x4000a when creating) otherwise; directories
  // are refused with 0x40021.
  static std::unique_ptr<PosixFile> Open(const std::string& path, Mode mode,
                                         Common::Error& error);
  static std::unique_ptr<PosixFile> Open(const std::string& path, Mode mode) {
    Common::Error ignored;
    return Open(path, mode, ignored);
  }
  // Adopts an open descriptor; `owned` closes it in the destructor.
  PosixFile(int fd, std::string path, bool owned);
  ~PosixFile() override;

  using i_file::Read;
  using o_file::Write;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;
  void Flush() override;
  void Truncate(uint64_t size) override;

  int64_t GetSize() override;
  int64_t Seek(int64_t position) override;
  int64_t SeekCur(int64_t delta) override;
  int64_t SeekEnd(int64_t delta) override;

  int Descriptor() const noexcept { return fd_; }
  const std::string& Path() const noexcept { return path_; }

 private:
  void Fail(const Common::ErrorLocation& where, uint32_t code, const char* call, int err);

  int fd_;
  std::string path_;
  bool owned_;
  int64_t position_ = 0;
};

// Reads a whole file into `out`; the error of the open or of a read.
Common::Error ReadWholeFile(const std::string& path, std::string& out);
