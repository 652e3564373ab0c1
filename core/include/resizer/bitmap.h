// A bit map over whole 8-byte words.  An index at or beyond the size is an
// internal error of the caller, raised as code 0x70001.
#pragma once

#include <cstddef>
#include <cstdint>

namespace resizer {

class Bitmap {
 public:
  Bitmap() = default;
  ~Bitmap();
  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;

  // `bits` bits, all clear, in at least `minimumBytes` bytes of storage.
  void Reset(uint64_t bits, size_t minimumBytes = 0);
  // Drops the bits from `bits` on; the storage stays.  Growing raises.
  void Shrink(uint64_t bits);

  void Set(uint64_t index);
  void Clear(uint64_t index);
  bool Test(uint64_t index) const;

  uint64_t Size() const { return size_; }
  size_t StorageBytes() const { return storageBytes_; }
  const uint8_t* Data() const { return reinterpret_cast<const uint8_t*>(words_); }

  // Bytes of storage for `bits` bits: whole 8-byte words.
  static size_t BytesFor(uint64_t bits);

 private:
  void Check(uint64_t index) const;

  uint64_t size_ = 0;
  uint64_t* words_ = nullptr;
  size_t storageBytes_ = 0;
};

}  // namespace resizer
