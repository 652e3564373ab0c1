// buf_ifile: a read-only, seekable view of a block of memory.
//
// The block may be owned (freed with delete[] by the destructor) or a pure
// view of memory that outlives the stream.  There is no write side.
#pragma once

#include <cstdint>
#include <cstring>

#include "file/file.h"

template <typename T>
class buf_ifile;

template <>
class buf_ifile<unsigned char> final : public ri_file {
 public:
  // `owned` is freed with delete[] by the destructor when not null; `data`
  // is the first byte of the range and `size` its length.  `owned` usually
  // equals `data`, but may be the start of a larger block.
  buf_ifile(unsigned char* owned, const unsigned char* data, uint64_t size) noexcept
      : owned_(owned), data_(data), size_(size) {}
  // A pure view.
  buf_ifile(const void* data, uint64_t size) noexcept
      : buf_ifile(nullptr, static_cast<const unsigned char*>(data), size) {}
  ~buf_ifile() override { delete[] owned_; }

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override {
    got = 0;
    if (HasError() || size == 0) return;
    if (position_ < 0 || static_cast<uint64_t>(position_) >= size_) return;
    const uint64_t left = size_ - static_cast<uint64_t>(position_);
    const uint64_t n = size < left ? size : left;
    std::memcpy(buffer, data_ + position_, n);
    position_ += static_cast<int64_t>(n);
    got = n;
  }

  int64_t GetSize() override { return static_cast<int64_t>(size_); }
  int64_t Seek(int64_t position) override { return position_ = position; }
  int64_t SeekCur(int64_t delta) override { return position_ += delta; }
  int64_t SeekEnd(int64_t delta) override {
    return position_ = static_cast<int64_t>(size_) + delta;
  }

  const unsigned char* Data() const noexcept { return data_; }

 private:
  unsigned char* owned_;
  const unsigned char* data_;
  int64_t position_ = 0;
  uint64_t size_;
};
