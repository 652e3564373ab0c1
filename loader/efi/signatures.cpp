#include "efi/signatures.h"

#include <algorithm>
#include <memory>
#include <new>

#include "common/error_codes.h"

// The loader keeps to the long-standing key and digest calls, which every
// libcrypto it is built with still has, though newer ones mark them old.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

namespace EfiLoader {

using namespace Common::Codes;
using Common::Error;
using Common::MakeError;

namespace {

constexpr std::string_view kMarker = "BeginSignature:";
constexpr size_t kHashBlock = 32768;

bool IsSeparator(char c) { return c == ' ' || c == '\n' || c == '\r'; }

// The next token at or after `pos`; empty at the end of the text.
std::string_view NextToken(std::string_view text, size_t& pos) {
  while (pos < text.size() && IsSeparator(text[pos])) ++pos;
  const size_t begin = pos;
  while (pos < text.size() && !IsSeparator(text[pos])) ++pos;
  return text.substr(begin, pos - begin);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Owns what one verification needs from libcrypto: a digest context already
// started with the digest of the key kind, and an empty key object.
class SignChecker {
 public:
  explicit SignChecker(KeyKind kind) {
    ctx_ = EVP_MD_CTX_create();
    key_ = EVP_PKEY_new();
    const EVP_MD* md = kind == KeyKind::Rsa ? EVP_sha256() : EVP_sha1();
    if (!ctx_ || !key_ || EVP_DigestInit_ex(ctx_, md, nullptr) != 1) {
      Release();
      THROW_ERROR(LoaderAllocationFailed);
    }
  }
  ~SignChecker() { Release(); }
  SignChecker(const SignChecker&) = delete;
  SignChecker& operator=(const SignChecker&) = delete;

  EVP_MD_CTX* Context() const { return ctx_; }
  EVP_PKEY* Key() const { return key_; }

 private:
  void Release() {
    if (ctx_) EVP_MD_CTX_destroy(ctx_);
    if (key_) EVP_PKEY_free(key_);
    ctx_ = nullptr;
    key_ = nullptr;
  }

  EVP_MD_CTX* ctx_ = nullptr;
  EVP_PKEY* key_ = nullptr;
};

// Puts the DER key into `pkey`; false if it cannot be decoded.
bool SetKey(EVP_PKEY* pkey, KeyKind kind, const uint8_t* key, size_t keyLength) {
  if (keyLength > 0x7FFFFFFF) return false;
  const unsigned char* p = key;
  const long length = static_cast<long>(keyLength);
  if (kind == KeyKind::Rsa) {
    RSA* rsa = d2i_RSA_PUBKEY(nullptr, &p, length);
    if (!rsa) return false;
    const bool ok = EVP_PKEY_set1_RSA(pkey, rsa) == 1;
    RSA_free(rsa);
    return ok;
  }
  DSA* dsa = d2i_DSA_PUBKEY(nullptr, &p, length);
  if (!dsa) return false;
  const bool ok = EVP_PKEY_set1_DSA(pkey, dsa) == 1;
  DSA_free(dsa);
  return ok;
}

struct BuiltInKey {
  KeyKind kind;
  const uint8_t* der;
  size_t length;
};

}  // namespace

Error ConvertToBinary(std::string_view token, std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> out(token.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    const int high = HexDigit(token[2 * i]);
    const int low = HexDigit(token[2 * i + 1]);
    if (high < 0 || low < 0) return MakeError(ERROR_HERE, SignatureDataIncorrect);
    out[i] = static_cast<uint8_t>(high << 4 | low);
  }
  bytes = std::move(out);
  return Error();
}

Error ParseSignaturesFile(const std::string& text, SignaturesFile& parsed) {
  const std::string_view all(text);
  const size_t marker = all.find(kMarker);
  if (marker == std::string_view::npos) return MakeError(ERROR_HERE, SignatureDataIncorrect);

  SignaturesFile result;
  result.signedData = all.substr(0, marker);
  size_t pos = marker + kMarker.size();
  if (Error e = ConvertToBinary(NextToken(all, pos), result.signature); e.IsError()) return e;

  // The digest scan stops at the end or at a whole marker token, which need
  // not be the marker that ends the signed data.
  std::vector<uint8_t> scratch;
  pos = 0;
  size_t end = 0;
  for (;;) {
    const std::string_view token = NextToken(all, pos);
    if (token.empty() || token == kMarker) break;
    if (Error e = ConvertToBinary(token, scratch); e.IsError()) return e;
    end = pos;
  }
  result.digestText = all.substr(0, end);
  parsed = std::move(result);
  return Error();
}

DigestList ReadDigests(const SignaturesFile& parsed) {
  DigestList digests;
  size_t pos = 0;
  for (;;) {
    const std::string_view token = NextToken(parsed.digestText, pos);
    if (token.empty()) break;
    digests.emplace_back();
    ConvertToBinary(token, digests.back());  // checked by the parse
  }
  return digests;
}

Error VerifySignature(KeyKind kind, const uint8_t* key, size_t keyLength, std::string_view data,
                      const std::vector<uint8_t>& signature) {
  SignChecker checker(kind);
  if (!SetKey(checker.Key(), kind, key, keyLength))
    return MakeError(ERROR_HERE, IncorrectPublicKey);
  if (signature.size() > 0x7FFFFFFF || EVP_DigestUpdate(checker.Context(), data.data(), data.size()) != 1 ||
      EVP_VerifyFinal(checker.Context(), signature.data(), static_cast<unsigned>(signature.size()),
                      checker.Key()) != 1)
    return MakeError(ERROR_HERE, InvalidFileSignature);
  return Error();
}

Error LoadChecksums(const std::string& text, DigestList& digests) {
  SignaturesFile parsed;
  if (Error e = ParseSignaturesFile(text, parsed); e.IsError()) return e;

  static const BuiltInKey kKeys[] = {
      {KeyKind::Rsa, PublicKeyFirst, sizeof PublicKeyFirst},
      {KeyKind::Rsa, PublicKeySecond, sizeof PublicKeySecond},
      {KeyKind::Dsa, PublicKeyDsa, sizeof PublicKeyDsa},
  };
  // Only the last attempt's outcome counts: a key that does not match is the
  // normal case for all but one of them.
  Error last;
  for (const BuiltInKey& k : kKeys) {
    last = VerifySignature(k.kind, k.der, k.length, parsed.signedData, parsed.signature);
    if (last.IsSuccess()) break;
  }
  if (last.IsError()) return MakeError(ERROR_HERE, InvalidFileSignature);

  DigestList listed = ReadDigests(parsed);
  digests.reserve(digests.size() + listed.size());
  for (auto& d : listed) digests.push_back(std::move(d));
  return Error();
}

bool IsHashValid(i_file& file, const DigestList& digests) {
  SHA256_CTX sha;
  SHA256_Init(&sha);
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kHashBlock]);
  if (!buffer) THROW_ERROR(LoaderAllocationFailed);

  for (;;) {
    uint64_t got = 0;
    file.Read(buffer.get(), kHashBlock, got);
    if (file.HasError()) throw MakeError(ERROR_HERE, FailedToReadFile).WithCause(file.TakeError());
    if (got == 0) break;
    if (got > kHashBlock) got = kHashBlock;
    SHA256_Update(&sha, buffer.get(), got);
  }
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256_Final(digest, &sha);

  for (const auto& d : digests)
    if (d.size() == sizeof digest && std::equal(d.begin(), d.end(), digest)) return true;
  return false;
}

}  // namespace EfiLoader
