// Signing for the tests: the loader only verifies, so the tests make their
// lists with libcrypto's signing calls and the development private keys of
// the build (LOADER_DEV_KEY_DIR).
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "efi/signatures.h"

namespace test_util {

struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

inline std::string DevKeyPath(const char* name) {
  return std::string(LOADER_DEV_KEY_DIR) + "/" + name + ".pem";
}

inline Pkey LoadPrivateKey(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (!f) throw std::runtime_error("cannot open " + path);
  EVP_PKEY* k = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
  std::fclose(f);
  if (!k) throw std::runtime_error("not a private key: " + path);
  return Pkey(k);
}

inline Pkey NewRsaKey(int bits = 2048) {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr);
  EVP_PKEY* k = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx) != 1 || EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, bits) != 1 ||
      EVP_PKEY_keygen(ctx, &k) != 1)
    throw std::runtime_error("RSA key generation failed");
  EVP_PKEY_CTX_free(ctx);
  return Pkey(k);
}

// The DER SubjectPublicKeyInfo of `key`.
inline std::vector<uint8_t> PublicDer(EVP_PKEY* key) {
  unsigned char* der = nullptr;
  const int n = i2d_PUBKEY(key, &der);
  if (n <= 0) throw std::runtime_error("i2d_PUBKEY failed");
  std::vector<uint8_t> out(der, der + n);
  OPENSSL_free(der);
  return out;
}

// A signature over `data` with `md` (SHA-256 for RSA, SHA-1 for DSA in the
// loader's lists).
inline std::vector<uint8_t> Sign(EVP_PKEY* key, const std::string& data, const EVP_MD* md) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  size_t len = 0;
  if (!ctx || EVP_DigestSignInit(ctx, nullptr, md, nullptr, key) != 1 ||
      EVP_DigestSign(ctx, nullptr, &len, reinterpret_cast<const unsigned char*>(data.data()),
                     data.size()) != 1)
    throw std::runtime_error("signing failed");
  std::vector<uint8_t> sig(len);
  if (EVP_DigestSign(ctx, sig.data(), &len, reinterpret_cast<const unsigned char*>(data.data()),
                     data.size()) != 1)
    throw std::runtime_error("signing failed");
  sig.resize(len);
  EVP_MD_CTX_free(ctx);
  return sig;
}

inline std::string Hex(const std::vector<uint8_t>& bytes, bool upper = false) {
  static const char* lower = "0123456789abcdef";
  static const char* upperDigits = "0123456789ABCDEF";
  const char* d = upper ? upperDigits : lower;
  std::string s;
  for (uint8_t b : bytes) {
    s.push_back(d[b >> 4]);
    s.push_back(d[b & 15]);
  }
  return s;
}

// A whole list: `body` as it stands, the marker, the signature of `body`.
inline std::string SignedList(const std::string& body, EVP_PKEY* key, const EVP_MD* md) {
  return body + "BeginSignature:\n" + Hex(Sign(key, body, md)) + "\n";
}

}  // namespace test_util
