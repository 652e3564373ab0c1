// Common::MemoryFile: a growable read-write file held in one contiguous
// block of memory, limited to 0x40000000 bytes (1 GiB).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "file/file.h"

namespace Common {

class MemoryFile : public rio_file {
 public:
  // The size limit of a memory file.
  static constexpr uint64_t kMaxSize = 0x40000000;

  // The first byte of the contents, or null when the file is empty.  The
  // pointer is valid until the next operation that changes the size.
  virtual unsigned char* GetData() = 0;
};

// The one implementation, usable directly or through CreateMemoryFile().
class MemoryFileImpl final : public MemoryFile {
 public:
  MemoryFileImpl() = default;

  using i_file::Read;
  using o_file::Write;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override;
  void Truncate(uint64_t size) override;

  int64_t GetSize() override { return static_cast<int64_t>(buffer_.size()); }
  int64_t Seek(int64_t position) override { return position_ = position; }
  int64_t SeekCur(int64_t delta) override { return position_ += delta; }
  int64_t SeekEnd(int64_t delta) override {
    return position_ = static_cast<int64_t>(buffer_.size()) + delta;
  }

  unsigned char* GetData() override { return buffer_.empty() ? nullptr : buffer_.data(); }

 private:
  std::vector<unsigned char> buffer_;
  int64_t position_ = 0;
};

// The factory: a new, empty memory file at position 0.
std::unique_ptr<MemoryFile> CreateMemoryFile();

}  // namespace Common
