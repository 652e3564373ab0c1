// XZDecompressor: an i_file that decodes an XZ stream read from another
// i_file, with the LZMA SDK's incremental decoder.  Decoding only.
//
// The end of the input ends the data without an error of its own (a cut-off
// stream delivers what could be decoded); damage that the decoder sees is
// "The file is corrupted.", an unknown filter or check "The operation is not
// supported.".  Reading stops when a stream has ended at the end of a block
// of input: what follows is left to the caller (see CompressedBytesUsed).
#pragma once

#include <cstdint>
#include <memory>

#include "file/file.h"

class XZDecompressor final : public i_file {
 public:
  static constexpr uint32_t kBufferSize = 32768;
  // The largest single allocation the decoder may make (its dictionary):
  // a larger one, which only a hostile or absurd stream declares, is
  // refused as "Not enough memory to complete the operation.".
  static constexpr uint64_t kMaxDecoderAllocation = 256u << 20;

  // Does not own `input`.  Throws 0x40006 when memory cannot be had.
  explicit XZDecompressor(i_file& input);
  ~XZDecompressor() override;

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override;

  // Input bytes that the decoder took so far.  When a stream has ended this
  // is the offset in the input right behind it (and any padding it read).
  uint64_t CompressedBytesUsed() const noexcept { return consumed_; }
  bool StreamFinished() const;

 private:
  struct Unpacker;

  i_file* input_;
  std::unique_ptr<Unpacker> unpacker_;
  std::unique_ptr<unsigned char[]> buffer_;
  uint32_t filled_ = 0;
  uint32_t position_ = 0;
  uint64_t consumed_ = 0;
};

std::unique_ptr<XZDecompressor> CreateXZDecompressor(i_file& input);
