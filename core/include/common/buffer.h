// Output buffers of the serialisation code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/noncopyable.h"

// A null `data` in a writing operation stands for `size` zero bytes.
class Buffer {
 public:
  virtual bool Append(const void* data, size_t size) = 0;
  virtual void WriteAt(size_t offset, const void* data, size_t size) = 0;
  virtual size_t GetSize() const = 0;
  virtual ~Buffer() = default;
};

// A caller's block of fixed capacity.  Append counts every byte but stores
// only what fits, so a capacity of 0 measures what a serialiser would write.
class StaticBuffer final : public Buffer, Common::NonCopyable {
 public:
  StaticBuffer(void* data, size_t capacity) noexcept
      : data_(static_cast<unsigned char*>(data)), capacity_(data ? capacity : 0) {}

  // Always true.
  bool Append(const void* data, size_t size) override;
  // Stores what fits below the capacity; nothing at or past it.
  void WriteAt(size_t offset, const void* data, size_t size) override;
  // Bytes appended, which may exceed the capacity.
  size_t GetSize() const override { return used_; }
  size_t Capacity() const noexcept { return capacity_; }

 private:
  unsigned char* data_;
  size_t used_ = 0;
  size_t capacity_;
};

// A block that grows by half again, or to what is needed if that is more.
class DynamicBuffer final : public Buffer, Common::NonCopyable {
 public:
  DynamicBuffer() = default;
  ~DynamicBuffer() override;

  // False when the block could not grow; the buffer is then empty and
  // without a block.
  bool Append(const void* data, size_t size) override;
  // Stores at `offset`; what would fall past the capacity is dropped.
  void WriteAt(size_t offset, const void* data, size_t size) override;
  size_t GetSize() const override { return used_; }
  size_t Capacity() const noexcept { return capacity_; }
  const unsigned char* Data() const noexcept { return data_; }

 private:
  void Drop();

  unsigned char* data_ = nullptr;
  size_t used_ = 0;
  size_t capacity_ = 0;
};
