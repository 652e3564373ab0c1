// Whole-stream helpers: copying and the MD5 digest.
#define OPENSSL_SUPPRESS_DEPRECATED  // the MD5_* calls exist in every OpenSSL we build with

#include <memory>
#include <new>

#include <openssl/md5.h>

#include "file/utils.h"

using namespace Common::Codes;

namespace {

// Reads `source` to its end in chunks of `bufferSize` and hands each
// non-empty chunk to `use`, which returns an error to stop.  A chunk shorter
// than the buffer is the last one.  An error of the source is taken out of
// it and returned.
template <typename Use>
Common::Error ForEachChunk(i_file& source, size_t bufferSize, Use use) {
  // A zero-byte buffer could never tell the end from a full chunk.
  if (bufferSize == 0) bufferSize = 1;
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[bufferSize]);
  if (!buffer) return Common::MakeError(ERROR_HERE, NotEnoughMemory);
  for (;;) {
    uint64_t got = 0;
    source.Read(buffer.get(), bufferSize, got);
    if (source.HasError()) return source.TakeError();
    if (got == 0) return Common::Error();
    Common::Error e = use(buffer.get(), got);
    if (e.IsError() || got < bufferSize) return e;
  }
}

}  // namespace

Common::Error SimpleCopyFile(i_file* source, o_file* target, uint64_t* copiedOut,
                             size_t bufferSize) {
  uint64_t copied = 0;
  uint64_t& count = copiedOut ? *copiedOut : copied;
  count = 0;
  if (source == nullptr) return Common::MakeError(ERROR_HERE, ReadError);
  if (target == nullptr) return Common::MakeError(ERROR_HERE, WriteError);
  return ForEachChunk(*source, bufferSize, [&](const unsigned char* chunk, uint64_t size) {
    uint64_t written = 0;
    target->Write(chunk, size, written);
    if (target->HasError()) return target->TakeError();
    if (written < size) {
      target->SetError(ERROR_HERE, DiskFull);
      return target->TakeError();
    }
    count += size;
    return Common::Error();
  });
}

Common::Error SimpleCopyFile(i_file* source, o_file* target, size_t bufferSize) {
  return SimpleCopyFile(source, target, nullptr, bufferSize);
}

Common::Error CalcMD5File(i_file* file, unsigned char digest[16], size_t bufferSize) {
  if (file == nullptr) return Common::MakeError(ERROR_HERE, ReadError);
  MD5_CTX context;
  if (MD5_Init(&context) != 1) return Common::MakeError(ERROR_HERE, NotEnoughMemory);
  Common::Error e = ForEachChunk(*file, bufferSize, [&](const unsigned char* chunk, uint64_t size) {
    MD5_Update(&context, chunk, size);
    return Common::Error();
  });
  if (e.IsSuccess()) MD5_Final(digest, &context);
  return e;
}
