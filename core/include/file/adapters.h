// Stream adapters that the RAM disk code strings together: a one-byte
// pushback, a length limit and a fan-out writer.
//
// None of them owns the streams it wraps, and none lets a wrapped stream
// keep an error: after each call the inner error moves into the adapter.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "file/file.h"

// An input with one byte of pushback, for a reader that has read one byte
// too far.
class SkipableIFile final : public i_file {
 public:
  explicit SkipableIFile(i_file& inner) noexcept : inner_(&inner) {}

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;

  // The next Read delivers `byte` before anything of the inner stream.
  void PushBack(unsigned char byte) noexcept {
    pending_ = byte;
    hasPending_ = true;
  }
  bool HasPending() const noexcept { return hasPending_; }
  i_file& Inner() noexcept { return *inner_; }

 private:
  i_file* inner_;
  unsigned char pending_ = 0;
  bool hasPending_ = false;
};

// At most `limit` bytes of the inner stream, from where it stands.
class SizeLimitedIFile final : public i_file {
 public:
  SizeLimitedIFile(i_file& inner, uint64_t limit) noexcept : inner_(&inner), limit_(limit) {}

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;

  uint64_t Position() const noexcept { return position_; }

 private:
  i_file* inner_;
  uint64_t limit_;
  uint64_t position_ = 0;
};

// Writes every buffer to each sink in order.  The first sink that fails
// stops the write: later sinks get nothing, and the failure (a short write
// counting as "The disk is full.") moves into the writer.
class MultiWriter final : public o_file {
 public:
  explicit MultiWriter(std::vector<o_file*> sinks) : sinks_(std::move(sinks)) {}

  using o_file::Write;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;

 private:
  std::vector<o_file*> sinks_;
};
