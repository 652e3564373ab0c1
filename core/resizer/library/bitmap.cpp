#include "resizer/bitmap.h"

#include <cstring>

#include "internal_error.h"

namespace resizer {

namespace {
[[noreturn]] void InvalidBitmapIndex() {
  detail::RaiseInternal(ERROR_HERE, "Internal error: invalid bitmap index");
}
}  // namespace

Bitmap::~Bitmap() { std::free(words_); }

size_t Bitmap::BytesFor(uint64_t bits) {
  if (bits == 0) return 0;
  return size_t((((bits - 1) >> 3) & ~uint64_t(7)) + 8);
}

void Bitmap::Reset(uint64_t bits, size_t minimumBytes) {
  const size_t bytes = BytesFor(bits);
  std::free(words_);
  words_ = nullptr;
  storageBytes_ = 0;
  size_ = 0;
  const size_t allocate = bytes > minimumBytes ? bytes : minimumBytes;
  if (allocate != 0) {
    // Whole words, so that word access at the end stays inside.
    const size_t rounded = (allocate + 7) & ~size_t(7);
    words_ = static_cast<uint64_t*>(detail::Allocate(rounded, ERROR_HERE));
    storageBytes_ = rounded;
    std::memset(words_, 0, rounded);
  }
  size_ = bits;
}

void Bitmap::Shrink(uint64_t bits) {
  if (bits > size_) detail::RaiseInternal(ERROR_HERE, "Internal error: Bitmap::Shrink only shrinks");
  if (bits < size_ && bits % 64 != 0) {
    const uint64_t stop = ((bits + 63) & ~uint64_t(63)) < size_ ? ((bits + 63) & ~uint64_t(63)) : size_;
    for (uint64_t i = bits; i < stop; ++i) words_[i >> 6] &= ~(uint64_t(1) << (i & 63));
  }
  size_ = bits;
}

void Bitmap::Check(uint64_t index) const {
  if (index >= size_) InvalidBitmapIndex();
}

void Bitmap::Set(uint64_t index) {
  Check(index);
  words_[index >> 6] |= uint64_t(1) << (index & 63);
}

void Bitmap::Clear(uint64_t index) {
  Check(index);
  words_[index >> 6] &= ~(uint64_t(1) << (index & 63));
}

bool Bitmap::Test(uint64_t index) const {
  Check(index);
  return (words_[index >> 6] >> (index & 63)) & 1;
}

}  // namespace resizer
