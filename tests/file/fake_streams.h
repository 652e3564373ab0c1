// Scripted streams for the tests of adapters and copy helpers: they record
// how they were called and fail on demand.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "file/buf_ifile.h"
#include "file/file.h"

namespace test_util {

// Delivers `data` in chunks of at most `chunk` bytes; fails with `failCode`
// on read number `failAt` (1-based, 0 for never).
class ScriptedInput : public i_file {
 public:
  explicit ScriptedInput(std::string data, uint64_t chunk = UINT64_MAX)
      : data_(std::move(data)), chunk_(chunk) {}

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override {
    got = 0;
    ++reads;
    sizes.push_back(size);
    if (HasError()) return;
    if (failAt != 0 && reads == failAt) {
      SetError(ERROR_HERE, failCode);
      return;
    }
    uint64_t n = data_.size() - position;
    if (n > size) n = size;
    if (n > chunk_) n = chunk_;
    if (n) std::memcpy(buffer, data_.data() + position, n);
    position += n;
    got = n;
  }

  int reads = 0;
  std::vector<uint64_t> sizes;
  uint64_t position = 0;
  int failAt = 0;
  uint32_t failCode = Common::Codes::ReadError;

 private:
  std::string data_;
  uint64_t chunk_;
};

// Collects what is written; accepts at most `accept` bytes a call, and
// fails with `failCode` on write number `failAt` (1-based, 0 for never).
class RecordingSink : public o_file {
 public:
  using o_file::Write;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override {
    written = 0;
    ++writes;
    sizes.push_back(size);
    if (HasError()) return;
    if (failAt != 0 && writes == failAt) {
      SetError(ERROR_HERE, failCode);
      return;
    }
    const uint64_t n = size < accept ? size : accept;
    data.append(static_cast<const char*>(buffer), n);
    written = n;
  }

  std::string data;
  int writes = 0;
  std::vector<uint64_t> sizes;
  uint64_t accept = UINT64_MAX;
  int failAt = 0;
  uint32_t failCode = Common::Codes::WriteError;
};

// Everything `Decoder` gives over `packed`, read in pieces of `chunk` bytes
// until it ends or fails; the failure goes to `error` when asked for.
template <class Decoder>
std::string DecodeAll(const std::string& packed, uint64_t chunk = 65536, Common::Error* error = nullptr) {
  buf_ifile<unsigned char> in(packed.data(), packed.size());
  Decoder reader(in);
  std::string out, piece(chunk, '\0');
  for (;;) {
    uint64_t got = 0;
    reader.Read(piece.data(), chunk, got);
    out.append(piece, 0, got);
    if (reader.HasError() || got == 0) break;
  }
  if (error) *error = reader.TakeError();
  return out;
}

}  // namespace test_util
