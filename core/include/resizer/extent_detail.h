// A growable byte store for lists of extents.
#pragma once

#include <cstddef>
#include <cstdint>

namespace resizer {

class ExtentStore {
 public:
  ExtentStore() = default;
  ~ExtentStore();
  ExtentStore(const ExtentStore&) = delete;
  ExtentStore& operator=(const ExtentStore&) = delete;

  // Makes room for `wanted` bytes, keeping the first `used`: a new block of
  // at least twice `used`, so that appending one record at a time costs
  // amortised constant time.
  void Reserve(size_t used, size_t wanted);
  // Appends `size` bytes (reserving as needed).
  void Append(const void* data, size_t size);

  uint8_t* Begin() const { return begin_; }
  uint8_t* End() const { return end_; }
  size_t Size() const { return size_t(end_ - begin_); }
  size_t Capacity() const { return size_t(capacity_ - begin_); }

 private:
  uint8_t* begin_ = nullptr;
  uint8_t* end_ = nullptr;
  uint8_t* capacity_ = nullptr;
};

}  // namespace resizer
