#include "common/buffer.h"

#include <cstdlib>
#include <cstring>

namespace {

void Store(unsigned char* to, const void* data, size_t size) {
  if (size == 0) return;
  if (data)
    std::memcpy(to, data, size);
  else
    std::memset(to, 0, size);
}

// Stores the part of [offset, offset + size) that lies below `capacity`.
void StoreClipped(unsigned char* block, size_t capacity, size_t offset, const void* data,
                  size_t size) {
  if (offset >= capacity) return;
  const size_t room = capacity - offset;
  Store(block + offset, data, size < room ? size : room);
}

}  // namespace

bool StaticBuffer::Append(const void* data, size_t size) {
  StoreClipped(data_, capacity_, used_, data, size);
  used_ = size > SIZE_MAX - used_ ? SIZE_MAX : used_ + size;
  return true;
}

void StaticBuffer::WriteAt(size_t offset, const void* data, size_t size) {
  StoreClipped(data_, capacity_, offset, data, size);
}

DynamicBuffer::~DynamicBuffer() { std::free(data_); }

void DynamicBuffer::Drop() {
  std::free(data_);
  data_ = nullptr;
  used_ = capacity_ = 0;
}

bool DynamicBuffer::Append(const void* data, size_t size) {
  if (size > SIZE_MAX - used_) {
    Drop();
    return false;
  }
  const size_t needed = used_ + size;
  if (needed > capacity_) {
    const size_t grown = capacity_ > SIZE_MAX - capacity_ / 2 ? SIZE_MAX : capacity_ + capacity_ / 2;
    const size_t capacity = needed > grown ? needed : grown;
    auto* block = static_cast<unsigned char*>(std::malloc(capacity));
    if (block == nullptr) {
      Drop();
      return false;
    }
    if (used_ != 0) std::memcpy(block, data_, used_);
    std::free(data_);
    data_ = block;
    capacity_ = capacity;
  }
  Store(data_ + used_, data, size);
  used_ = needed;
  return true;
}

void DynamicBuffer::WriteAt(size_t offset, const void* data, size_t size) {
  StoreClipped(data_, capacity_, offset, data, size);
}
