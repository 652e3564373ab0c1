#include "file/posix_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Common::Codes;

namespace {

Common::Error SystemError(const Common::ErrorLocation& where, uint32_t code, const char* call,
                          const std::string& path, int err) {
  Common::Error e = Common::MakeError(where, code);
  const std::string text = std::string(call) + " \"" + path + "\": " + std::strerror(err);
  e.SetCause(Common::Error(where, static_cast<uint32_t>(err ? err : EIO), text.c_str()));
  return e;
}

}  // namespace

std::unique_ptr<PosixFile> PosixFile::Open(const std::string& path, Mode mode,
                                           Common::Error& error) {
  int flags = O_CLOEXEC;
  bool creating = false;
  switch (mode) {
    case Mode::Read: flags |= O_RDONLY; break;
    case Mode::ReadWrite: flags |= O_RDWR; break;
    case Mode::Create: flags |= O_RDWR | O_CREAT | O_TRUNC; creating = true; break;
    case Mode::CreateNew: flags |= O_RDWR | O_CREAT | O_EXCL; creating = true; break;
  }
  int fd;
  do {
    fd = ::open(path.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int err = errno;
    uint32_t code = creating ? CreateError : OpenError;
    if (err == ENOENT) code = FileNotFound;
    else if (err == EACCES || err == EPERM) code = AccessDenied;
    else if (err == EEXIST) code = AlreadyExists;
    error = SystemError(ERROR_HERE, code, "open", path, err);
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    const int err = S_ISDIR(st.st_mode) ? EISDIR : errno;
    ::close(fd);
    error = SystemError(ERROR_HERE, UnsupportedFileType, "open", path, err);
    return nullptr;
  }
  error = Common::Error();
  return std::make_unique<PosixFile>(fd, path, true);
}

PosixFile::PosixFile(int fd, std::string path, bool owned)
    : fd_(fd), path_(std::move(path)), owned_(owned) {}

PosixFile::~PosixFile() {
  if (owned_ && fd_ >= 0) ::close(fd_);
}

void PosixFile::Fail(const Common::ErrorLocation& where, uint32_t code, const char* call,
                     int err) {
  SetError(SystemError(where, code, call, path_, err));
}

void PosixFile::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (HasError() || size == 0 || position_ < 0) return;
  auto* out = static_cast<unsigned char*>(buffer);
  // A short read of the system is not the end: only 0 bytes are.
  while (got < size) {
    const uint64_t chunk = size - got < 0x40000000 ? size - got : 0x40000000;
    const ssize_t n = ::pread(fd_, out + got, chunk, position_);
    if (n < 0) {
      if (errno == EINTR) continue;
      Fail(ERROR_HERE, ReadError, "read", errno);
      return;
    }
    if (n == 0) break;
    got += static_cast<uint64_t>(n);
    position_ += n;
  }
}

void PosixFile::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  if (HasError() || size == 0) return;
  if (position_ < 0) {
    SetError(ERROR_HERE, SeekError);
    return;
  }
  const auto* in = static_cast<const unsigned char*>(buffer);
  while (written < size) {
    const uint64_t chunk = size - written < 0x40000000 ? size - written : 0x40000000;
    const ssize_t n = ::pwrite(fd_, in + written, chunk, position_);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      Fail(ERROR_HERE, err == ENOSPC || err == EFBIG ? DiskFull : WriteError, "write", err);
      return;
    }
    if (n == 0) return;  // accepted fewer bytes: the caller decides
    written += static_cast<uint64_t>(n);
    position_ += n;
  }
}

void PosixFile::Flush() {
  if (HasError()) return;
  if (::fsync(fd_) != 0 && errno != EINVAL && errno != EROFS) Fail(ERROR_HERE, WriteError, "fsync", errno);
}

void PosixFile::Truncate(uint64_t size) {
  if (HasError()) return;
  if (size > static_cast<uint64_t>(INT64_MAX) || ::ftruncate(fd_, static_cast<off_t>(size)) != 0)
    Fail(ERROR_HERE, WriteError, "ftruncate", size > static_cast<uint64_t>(INT64_MAX) ? EFBIG : errno);
}

int64_t PosixFile::GetSize() {
  if (HasError()) return -1;
  // lseek measures block devices as well as regular files.
  const off_t end = ::lseek(fd_, 0, SEEK_END);
  if (end < 0) {
    Fail(ERROR_HERE, SeekError, "lseek", errno);
    return -1;
  }
  return end;
}

int64_t PosixFile::Seek(int64_t position) {
  if (HasError()) return -1;
  if (position < 0) {
    SetError(ERROR_HERE, SeekError);
    return -1;
  }
  return position_ = position;
}

int64_t PosixFile::SeekCur(int64_t delta) {
  if (HasError()) return -1;
  if (delta < 0 ? position_ + delta < 0 : position_ > INT64_MAX - delta) {
    SetError(ERROR_HERE, SeekError);
    return -1;
  }
  return position_ += delta;
}

int64_t PosixFile::SeekEnd(int64_t delta) {
  const int64_t end = GetSize();
  if (end < 0) return -1;
  if (delta < 0 ? end + delta < 0 : end > INT64_MAX - delta) {
    SetError(ERROR_HERE, SeekError);
    return -1;
  }
  return position_ = end + delta;
}

Common::Error ReadWholeFile(const std::string& path, std::string& out) {
  out.clear();
  Common::Error error;
  auto file = PosixFile::Open(path, PosixFile::Mode::Read, error);
  if (!file) return error;
  char chunk[65536];
  for (;;) {
    uint64_t got = 0;
    file->Read(chunk, sizeof chunk, got);
    if (file->HasError()) return file->TakeError();
    out.append(chunk, got);
    if (got < sizeof chunk) return Common::Error();
  }
}
