#include "file/buffered_pipe.h"

#include <new>

using namespace Common::Codes;

BufferedPipe::BufferedPipe(i_file* input, o_file* tee)
    : input(input), tee(tee), storage_(new (std::nothrow) unsigned char[kBufferSize]) {
  if (!storage_) THROW_ERROR(NotEnoughMemory);
  base = cursor = storage_.get();
}

void BufferedPipe::WriteToTee(const unsigned char* end) {
  if (tee == nullptr || end <= base) return;
  tee->Write(base, static_cast<uint64_t>(end - base));
  if (tee->HasError()) throw tee->TakeError();
}

void BufferedPipe::Readmore() {
  if (cursor > base) {
    unsigned char* last = cursor - 1;
    WriteToTee(last);
    *base = *last;
    cursor = base + 1;
  }
  uint64_t got = 0;
  input->Read(cursor, static_cast<uint64_t>(base + kBufferSize - cursor), got);
  if (input->HasError()) throw input->TakeError();
  count = static_cast<uint32_t>(got);
  if (got == 0) THROW_ERROR(EndOfFile);
}
