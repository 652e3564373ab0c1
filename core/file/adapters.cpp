#include "file/adapters.h"

using Common::Codes::DiskFull;

void SkipableIFile::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (HasError()) return;
  auto* out = static_cast<unsigned char*>(buffer);
  uint64_t pushedBack = 0;
  if (size != 0 && hasPending_) {
    hasPending_ = false;
    *out++ = pending_;
    --size;
    pushedBack = 1;
  }
  // Also with nothing left to ask for, so that the inner stream sees the
  // call as the caller made it.
  inner_->Read(out, size, got);
  TakeErrorFrom(*inner_);
  got += pushedBack;
}

void SizeLimitedIFile::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (HasError()) return;
  const uint64_t left = limit_ - position_;
  if (size > left) size = left;
  if (size == 0) return;
  inner_->Read(buffer, size, got);
  TakeErrorFrom(*inner_);
  position_ += got;
}

void MultiWriter::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  if (HasError()) return;
  for (o_file* sink : sinks_) {
    uint64_t accepted = 0;
    sink->Write(buffer, size, accepted);
    if (!sink->HasError() && accepted < size) sink->SetError(ERROR_HERE, DiskFull);
    if (TakeErrorFrom(*sink)) return;
  }
  written = size;
}
