// Whole-stream helpers: copying and the MD5 digest.
#define OPENSSL_SUPPRESS_DEPRECATED  // the MD5_* calls exist in every OpenSSL we build with

#include <memory>
#include <new>

#include <openssl/md5.h>

#include "file/utils.h"

using namespace Common::Codes;

namespace {

// A zero-byte buffer could never tell the end from a full chunk.
std::unique_ptr<unsigned char[]> AllocateChunk(size_t& size) {
  if (size == 0) size = 1;
  return std::unique_ptr<unsigned char[]>(new (std::nothrow) unsigned char[size]);
}

}  // namespace

Common::Error SimpleCopyFile(i_file* source, o_file* target, uint64_t* copiedOut,
                             size_t bufferSize) {
  uint64_t copied = 0;
  uint64_t& count = copiedOut ? *copiedOut : copied;
  count = 0;
  if (source == nullptr) return Common::MakeError(ERROR_HERE, ReadError);
  if (target == nullptr) return Common::MakeError(ERROR_HERE, WriteError);
  auto buffer = AllocateChunk(bufferSize);
  if (!buffer) return Common::MakeError(ERROR_HERE, NotEnoughMemory);
  for (;;) {
    uint64_t got = 0;
    source->Read(buffer.get(), bufferSize, got);
    if (source->HasError()) return source->TakeError();
    if (got == 0) return Common::Error();
    uint64_t written = 0;
    target->Write(buffer.get(), got, written);
    if (target->HasError()) return target->TakeError();
    if (written < got) {
      target->SetError(ERROR_HERE, DiskFull);
      return target->TakeError();
    }
    count += got;
    if (got < bufferSize) return Common::Error();
  }
}

Common::Error SimpleCopyFile(i_file* source, o_file* target, size_t bufferSize) {
  return SimpleCopyFile(source, target, nullptr, bufferSize);
}

Common::Error CalcMD5File(i_file* file, unsigned char digest[16], size_t bufferSize) {
  if (file == nullptr) return Common::MakeError(ERROR_HERE, ReadError);
  MD5_CTX context;
  if (MD5_Init(&context) != 1) return Common::MakeError(ERROR_HERE, NotEnoughMemory);
  auto buffer = AllocateChunk(bufferSize);
  if (!buffer) return Common::MakeError(ERROR_HERE, NotEnoughMemory);
  for (;;) {
    uint64_t got = 0;
    file->Read(buffer.get(), bufferSize, got);
    if (file->HasError()) return file->TakeError();
    if (got != 0) MD5_Update(&context, buffer.get(), got);
    if (got < bufferSize) {
      MD5_Final(digest, &context);
      return Common::Error();
    }
  }
}
