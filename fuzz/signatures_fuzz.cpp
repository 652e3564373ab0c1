// Signature file text from anywhere: LoadChecksums must answer every input
// with success or one of its errors, and leave the list alone on failure.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "efi/signatures.h"
#include "file/buf_ifile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  EfiLoader::DigestList digests{{0xAA}};
  const Common::Error e = EfiLoader::LoadChecksums(text, digests);
  if (e.IsError() && (digests.size() != 1 || digests[0] != std::vector<uint8_t>{0xAA})) std::abort();
  if (e.IsError() && e.Code() != 0x1480011 && e.Code() != 0x1480014) std::abort();

  // The parse on its own reaches the digest scan that a bad signature hides.
  EfiLoader::SignaturesFile parsed;
  if (EfiLoader::ParseSignaturesFile(text, parsed).IsSuccess()) {
    if (parsed.signedData.size() > text.size() || parsed.digestText.size() > text.size()) std::abort();
    buf_ifile<unsigned char> file(data, size);
    EfiLoader::IsHashValid(file, EfiLoader::ReadDigests(parsed));
  }
  return 0;
}
