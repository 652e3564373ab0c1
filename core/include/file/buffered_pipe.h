// BufferedPipe: the input buffer of the gzip readers.
//
// Bytes come from `input` into one buffer; the reader consumes them by
// moving `cursor` on and `count` down (zlib does this directly).  When a
// tee is set, consumed bytes flow on to it at each refill, all but the last
// consumed one, which stays in the buffer so that a caller may still change
// it after the refill.
#pragma once

#include <cstdint>
#include <memory>

#include "common/noncopyable.h"
#include "file/file.h"

class BufferedPipe : Common::NonCopyable {
 public:
  static constexpr uint32_t kBufferSize = 32768;

  // An empty buffer with the cursor at its start.  Throws 0x40006 when the
  // buffer cannot be had.
  BufferedPipe(i_file* input, o_file* tee);

  // Refills the buffer; call it when `count` is 0.  The consumed bytes but
  // the last go to the tee; the last is kept as the first byte of the
  // buffer.  Throws the error of the tee (a short write being "The disk is
  // full.") or of the input, taken out of the stream, and 0x40002 when the
  // input has no more bytes.
  void Readmore();

  // Writes the bytes from `base` up to `end` to the tee with the exact
  // semantics; throws its error.  Nothing happens without a tee.
  void WriteToTee(const unsigned char* end);

  i_file* input;
  o_file* tee;
  uint32_t count = 0;
  unsigned char* base;
  unsigned char* cursor;

 private:
  std::unique_ptr<unsigned char[]> storage_;
};
