// Signed digest lists: what may be started when the firmware enforces Secure
// Boot.
//
// A list is text: SHA-256 digests in hexadecimal, then the token
// "BeginSignature:" and the signature of everything before that marker.  It
// must verify under one of the public keys built into the loader; a file may
// then be started if its digest is on the list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "file/file.h"

namespace EfiLoader {

using DigestList = std::vector<std::vector<uint8_t>>;

// The keys of the build, tried in this order.  The build writes their
// values from the key files it was given (DER SubjectPublicKeyInfo).
extern const uint8_t PublicKeyFirst[294];   // RSA 2048, signs SHA-256
extern const uint8_t PublicKeySecond[294];  // RSA 2048, signs SHA-256
extern const uint8_t PublicKeyDsa[442];     // DSA, signs SHA-1

// Checks the signature of the list `text` and, if one key accepts it, appends
// its digests to `digests`.  On any failure `digests` is left as it was.
Common::Error LoadChecksums(const std::string& text, DigestList& digests);

// True if the SHA-256 of `file`, read from its current position to its end,
// is one of `digests`.  Throws on a read error.
bool IsHashValid(i_file& file, const DigestList& digests);

// ---- building blocks, public for loader-tool and the tests ----------------

// `token` as bytes, two hexadecimal digits each; an odd last digit is not
// read.
Common::Error ConvertToBinary(std::string_view token, std::vector<uint8_t>& bytes);

// Splits a list into the signed part, the signature bytes and the text of
// the digests, every one of them checked as hexadecimal.  The digests are
// only read out (ReadDigests) once the signature holds, so that a forged
// list costs no more memory than its own text.
struct SignaturesFile {
  std::string_view signedData;
  std::string_view digestText;
  std::vector<uint8_t> signature;
};
Common::Error ParseSignaturesFile(const std::string& text, SignaturesFile& parsed);
DigestList ReadDigests(const SignaturesFile& parsed);

enum class KeyKind { Rsa, Dsa };

// Checks `signature` over `data` with one DER public key of `kind`.
Common::Error VerifySignature(KeyKind kind, const uint8_t* key, size_t keyLength,
                              std::string_view data, const std::vector<uint8_t>& signature);

}  // namespace EfiLoader
