#include "file/file.h"

using Common::Codes::DiskFull;
using Common::Codes::EndOfFile;

void file_object::IOCTL(void*) { NotSupported(ERROR_HERE); }

void i_file::Read(void* buffer, uint64_t size) {
  uint64_t got = 0;
  Read(buffer, size, got);
  if (HasError()) return;
  if (got < size) SetError(ERROR_HERE, EndOfFile);
}

void o_file::Write(const void* buffer, uint64_t size) {
  uint64_t written = 0;
  Write(buffer, size, written);
  if (HasError()) return;
  if (written < size) SetError(ERROR_HERE, DiskFull);
}

int64_t raccess_file::GetSize() {
  if (HasError()) return -1;
  const int64_t here = SeekCur(0);
  if (here < 0) return -1;
  const int64_t end = SeekEnd(0);
  if (Seek(here) < 0) return -1;
  return end;
}
