#include "resizer/array.h"

#include <cstring>

#include "internal_error.h"

namespace resizer {

namespace {

[[noreturn]] void InvalidIndexInGet(bool empty) {
  detail::RaiseInternal(ERROR_HERE, empty ? "Internal error: attempt to get element from empty array"
                                          : "Internal error: invalid array index to get");
}
[[noreturn]] void InvalidIndexInSet(bool empty) {
  detail::RaiseInternal(ERROR_HERE, empty ? "Internal error: attempt to set element in empty array"
                                          : "Internal error: invalid array index to set");
}
[[noreturn]] void InvalidValueInSet() {
  detail::RaiseInternal(ERROR_HERE, "Internal error: invalid array value to set");
}

uint8_t BitsFor(uint64_t greatest) {
  uint8_t bits = 0;
  while (greatest != 0) {
    ++bits;
    greatest >>= 1;
  }
  return bits;
}

}  // namespace

NumberArray::~NumberArray() { std::free(storage_); }

void NumberArray::Reset(uint64_t count, uint64_t greatest) {
  if (count == 0 || greatest == 0) {
    std::free(storage_);
    storage_ = nullptr;
    storageBytes_ = 0;
    bits_ = 0;
    mask_ = 0;
    greatest_ = 0;
    count_ = count;
    return;
  }
  const uint8_t bits = BitsFor(greatest);
  // Room for a read of 9 bytes at the last element, in whole words.
  if ((count - 1) > (UINT64_MAX - 16 * 8) / bits)
    throw NotEnoughMemory(ERROR_HERE);
  const uint64_t bytes = (((bits * (count - 1)) >> 3) + 16) & ~uint64_t(7);
  if (bytes > SIZE_MAX)
    throw NotEnoughMemory(ERROR_HERE);
  if (storage_ != nullptr && count == count_ && bits == bits_) {
    greatest_ = greatest;
    std::memset(storage_, 0, storageBytes_);
    return;
  }
  std::free(storage_);
  storage_ = nullptr;
  storageBytes_ = 0;
  storage_ = static_cast<uint8_t*>(detail::Allocate(size_t(bytes), ERROR_HERE));
  storageBytes_ = size_t(bytes);
  count_ = count;
  bits_ = bits;
  mask_ = bits == 64 ? ~uint64_t(0) : (uint64_t(1) << bits) - 1;
  greatest_ = greatest;
  std::memset(storage_, 0, storageBytes_);
}

void NumberArray::Shrink(uint64_t count) {
  if (count > count_) detail::RaiseInternal(ERROR_HERE, "Internal error: NumberArray::Shrink only shrinks");
  count_ = count;
}

uint64_t NumberArray::Get(uint64_t index) const {
  if (storage_ == nullptr) InvalidIndexInGet(true);
  if (index >= count_) InvalidIndexInGet(false);
  const uint64_t bit = index * bits_;
  const uint8_t* p = storage_ + (bit >> 3);
  const unsigned shift = unsigned(bit & 7);
  // Up to 64 bits starting anywhere in a byte span nine bytes.
  uint64_t low = 0;
  std::memcpy(&low, p, 8);
  uint64_t value = low >> shift;
  if (shift != 0 && bits_ + shift > 64) value |= uint64_t(p[8]) << (64 - shift);
  return value & mask_;
}

void NumberArray::Set(uint64_t index, uint64_t value) {
  if (storage_ == nullptr) InvalidIndexInSet(true);
  if (index >= count_) InvalidIndexInSet(false);
  if (value > greatest_) InvalidValueInSet();
  const uint64_t bit = index * bits_;
  uint8_t* p = storage_ + (bit >> 3);
  const unsigned shift = unsigned(bit & 7);
  uint64_t low = 0;
  std::memcpy(&low, p, 8);
  low = (low & ~(mask_ << shift)) | (value << shift);
  std::memcpy(p, &low, 8);
  if (shift != 0 && bits_ + shift > 64) {
    const unsigned high = bits_ + shift - 64;
    const uint8_t keep = uint8_t(~((1u << high) - 1));
    p[8] = uint8_t((p[8] & keep) | uint8_t(value >> (64 - shift)));
  }
}

}  // namespace resizer
