#include "file/memfile.h"

#include <cstring>
#include <new>

namespace Common {

namespace {

// Grows like a vector does, but never reserves past the size limit.
void GrowTo(std::vector<unsigned char>& buffer, uint64_t size) {
  if (size > buffer.capacity()) {
    const uint64_t doubled = 2 * static_cast<uint64_t>(buffer.capacity());
    uint64_t capacity = doubled > size ? doubled : size;
    if (capacity > MemoryFile::kMaxSize) capacity = MemoryFile::kMaxSize;
    buffer.reserve(capacity);
  }
  buffer.resize(size);
}

}  // namespace

void MemoryFileImpl::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (HasError() || size == 0) return;
  if (position_ < 0 || static_cast<uint64_t>(position_) >= buffer_.size()) return;
  const uint64_t left = buffer_.size() - static_cast<uint64_t>(position_);
  const uint64_t n = size < left ? size : left;
  std::memcpy(buffer, buffer_.data() + position_, n);
  position_ += static_cast<int64_t>(n);
  got = n;
}

void MemoryFileImpl::Write(const void* buffer, uint64_t size, uint64_t& written) {
  written = 0;
  if (HasError() || size == 0) return;
  if (position_ < 0 || static_cast<uint64_t>(position_) >= kMaxSize) return;
  const uint64_t pos = static_cast<uint64_t>(position_);
  const uint64_t room = kMaxSize - pos;
  const uint64_t n = size < room ? size : room;
  try {
    // Past the end the gap is filled with zeroes first.
    if (buffer_.size() < pos + n) GrowTo(buffer_, pos + n);
  } catch (const std::bad_alloc&) {
    SetError(ERROR_HERE, Codes::NotEnoughMemory);
    return;
  }
  std::memcpy(buffer_.data() + pos, buffer, n);
  position_ += static_cast<int64_t>(n);
  written = n;
}

void MemoryFileImpl::Truncate(uint64_t size) {
  if (HasError() || size == buffer_.size()) return;
  if (size > kMaxSize) {
    SetError(ERROR_HERE, Codes::WriteError);
    return;
  }
  try {
    GrowTo(buffer_, size);
  } catch (const std::bad_alloc&) {
    SetError(ERROR_HERE, Codes::NotEnoughMemory);
  }
}

std::unique_ptr<MemoryFile> CreateMemoryFile() { return std::make_unique<MemoryFileImpl>(); }

}  // namespace Common
