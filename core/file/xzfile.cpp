#include "file/xzfile.h"

#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
#include "7zCrc.h"
#include "Xz.h"
#include "XzCrc64.h"
}

using namespace Common::Codes;

namespace {

void* DecoderAlloc(ISzAllocPtr, size_t size) {
  if (size > XZDecompressor::kMaxDecoderAllocation) return nullptr;
  return std::malloc(size);
}

void DecoderFree(ISzAllocPtr, void* address) { std::free(address); }

const ISzAlloc kDecoderAllocator = {DecoderAlloc, DecoderFree};

void GenerateCrcTablesOnce() {
  static bool done = false;
  if (done) return;
  CrcGenerateTable();
  Crc64GenerateTable();
  done = true;
}

uint32_t CodeOfResult(SRes result) {
  switch (result) {
    case SZ_ERROR_DATA:
    case SZ_ERROR_CRC:
    case SZ_ERROR_ARCHIVE:
      return Corrupted;
    case SZ_ERROR_MEM:
      return NotEnoughMemory;
    case SZ_ERROR_UNSUPPORTED:
    case SZ_ERROR_NO_ARCHIVE:
      return NotSupported;
    default:
      return InvalidUsage;
  }
}

}  // namespace

struct XZDecompressor::Unpacker {
  CXzUnpacker state;
};

XZDecompressor::XZDecompressor(i_file& input)
    : input_(&input),
      unpacker_(new (std::nothrow) Unpacker),
      buffer_(new (std::nothrow) unsigned char[kBufferSize]) {
  if (!unpacker_ || !buffer_) THROW_ERROR(NotEnoughMemory);
  std::memset(&unpacker_->state, 0, sizeof unpacker_->state);
  std::memset(buffer_.get(), 0, kBufferSize);
  GenerateCrcTablesOnce();
  XzUnpacker_Construct(&unpacker_->state, &kDecoderAllocator);
}

XZDecompressor::~XZDecompressor() { XzUnpacker_Free(&unpacker_->state); }

bool XZDecompressor::StreamFinished() const {
  return XzUnpacker_IsStreamWasFinished(&unpacker_->state) != 0;
}

void XZDecompressor::Read(void* buffer, uint64_t size, uint64_t& got) {
  got = 0;
  if (HasError() || StreamFinished()) return;
  auto* out = static_cast<unsigned char*>(buffer);
  for (;;) {
    if (got == size || HasError()) return;
    if (position_ == filled_) {
      uint64_t n = 0;
      input_->Read(buffer_.get(), kBufferSize, n);
      position_ = 0;
      filled_ = static_cast<uint32_t>(n);
      TakeErrorFrom(*input_);
    }
    if (filled_ == 0) return;

    SizeT outLength = static_cast<SizeT>(size - got);
    SizeT inLength = filled_ - position_;
    ECoderStatus status = CODER_STATUS_NOT_SPECIFIED;
    const SRes result = XzUnpacker_Code(&unpacker_->state, out + got, &outLength,
                                        buffer_.get() + position_, &inLength, 0,
                                        CODER_FINISH_ANY, &status);
    got += outLength;
    position_ += static_cast<uint32_t>(inLength);
    consumed_ += inLength;
    if (result != SZ_OK && result != SZ_ERROR_INPUT_EOF) {
      SetError(ERROR_HERE, CodeOfResult(result));
      return;
    }
    if (status == CODER_STATUS_FINISHED_WITH_MARK || StreamFinished()) return;
    if (inLength == 0 && outLength == 0) {
      SetError(ERROR_HERE, Corrupted);
      return;
    }
  }
}

std::unique_ptr<XZDecompressor> CreateXZDecompressor(i_file& input) {
  return std::make_unique<XZDecompressor>(input);
}
