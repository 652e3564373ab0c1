// An array of small numbers packed without gaps: each element takes just
// the bits of the greatest value it may hold.
#pragma once

#include <cstddef>
#include <cstdint>

namespace resizer {

class NumberArray {
 public:
  NumberArray() = default;
  ~NumberArray();
  NumberArray(const NumberArray&) = delete;
  NumberArray& operator=(const NumberArray&) = delete;

  // `count` elements, all 0, each able to hold 0 to `greatest`.  A count or
  // greatest of 0 leaves an array without storage.
  void Reset(uint64_t count, uint64_t greatest);
  // Drops the elements from `count` on; growing raises.
  void Shrink(uint64_t count);

  uint64_t Get(uint64_t index) const;
  void Set(uint64_t index, uint64_t value);

  uint64_t Count() const { return count_; }
  uint8_t BitsPerElement() const { return bits_; }
  uint64_t Greatest() const { return greatest_; }
  size_t StorageBytes() const { return storageBytes_; }

 private:
  uint64_t count_ = 0;
  uint8_t bits_ = 0;
  uint64_t mask_ = 0;
  uint64_t greatest_ = 0;
  uint8_t* storage_ = nullptr;
  size_t storageBytes_ = 0;
};

}  // namespace resizer
