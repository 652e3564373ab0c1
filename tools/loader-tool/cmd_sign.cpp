// loader-tool sign / verify: make a signed digest list for the loader, and
// check files against one with the loader's own code.
//
// Signing is this tool's part alone (the loader never signs): the list is
// the files' SHA-256 in hex, one a line, then "BeginSignature:" and the
// signature of everything before it in hex.  RSA keys sign SHA-256, DSA keys
// SHA-1, as the loader expects of its three keys.
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/error_codes.h"
#include "efi/signatures.h"
#include "file/posix_file.h"
#include "tool.h"

namespace {

using Common::Error;

constexpr const char* kMarker = "BeginSignature:";

int Report(const char* command, const Error& e) {
  std::fprintf(stderr, "loader-tool %s: %s\n", command, tool::ToUtf8(Common::ErrorText(e)).c_str());
  return 1;
}

std::string Hex(const unsigned char* p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  s.reserve(2 * n);
  for (size_t i = 0; i < n; ++i) {
    s.push_back(digits[p[i] >> 4]);
    s.push_back(digits[p[i] & 15]);
  }
  return s;
}

// The SHA-256 of a whole file, streamed.
Error FileDigest(const std::string& path, std::string& hex) {
  Error err;
  auto file = PosixFile::Open(path, PosixFile::Mode::Read, err);
  if (!file) return err;
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1)
    return Common::MakeError(ERROR_HERE, Common::Codes::NotEnoughMemory);
  std::vector<unsigned char> buffer(1 << 16);
  for (;;) {
    uint64_t got = 0;
    file->Read(buffer.data(), buffer.size(), got);
    if (file->HasError()) return file->TakeError();
    if (got == 0) break;
    EVP_DigestUpdate(ctx.get(), buffer.data(), got);
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_DigestFinal_ex(ctx.get(), digest, &len);
  hex = Hex(digest, len);
  return Error();
}

// Refuses to ask for a passphrase: the tool runs in scripts.
int NoPassphrase(char*, int, int, void*) { return -1; }

std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> LoadPrivateKey(const char* path) {
  std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(nullptr, EVP_PKEY_free);
  errno = 0;
  if (FILE* f = std::fopen(path, "r")) {
    errno = 0;
    key.reset(PEM_read_PrivateKey(f, nullptr, NoPassphrase, nullptr));
    std::fclose(f);
    errno = 0;
  }
  return key;
}

int Sign(int argc, char** argv) {
  if (argc < 3 || std::strcmp(argv[0], "--key") != 0) {
    std::fprintf(stderr, "usage: loader-tool sign --key PRIVATE.pem FILE... > LIST.sig\n");
    return 2;
  }
  const char* keyPath = argv[1];
  auto key = LoadPrivateKey(keyPath);
  if (!key && errno) {
    std::fprintf(stderr, "loader-tool sign: cannot open '%s': %s\n", keyPath, std::strerror(errno));
    return 1;
  }
  if (!key) {
    std::fprintf(stderr,
                 "loader-tool sign: no private key in '%s' (PEM, not encrypted, is needed)\n",
                 keyPath);
    return 1;
  }
  const EVP_MD* md = nullptr;
  switch (EVP_PKEY_get_base_id(key.get())) {
    case EVP_PKEY_RSA: md = EVP_sha256(); break;
    case EVP_PKEY_DSA: md = EVP_sha1(); break;
    default:
      std::fprintf(stderr, "loader-tool sign: '%s' is neither an RSA nor a DSA key\n", keyPath);
      return 1;
  }

  std::string body;
  for (int i = 2; i < argc; ++i) {
    std::string hex;
    if (Error e = FileDigest(argv[i], hex); e.IsError()) return Report("sign", e);
    body += hex + "\n";
  }

  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  size_t length = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(body.data());
  std::vector<unsigned char> signature;
  bool ok = ctx && EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, key.get()) == 1 &&
            EVP_DigestSign(ctx.get(), nullptr, &length, data, body.size()) == 1;
  if (ok) {
    signature.resize(length);
    ok = EVP_DigestSign(ctx.get(), signature.data(), &length, data, body.size()) == 1;
    signature.resize(length);
  }
  if (!ok) {
    std::fprintf(stderr, "loader-tool sign: signing with '%s' failed\n", keyPath);
    return 1;
  }

  const std::string list = body + kMarker + "\n" + Hex(signature.data(), signature.size()) + "\n";
  if (std::fwrite(list.data(), 1, list.size(), stdout) != list.size() || std::fflush(stdout) != 0) {
    std::fprintf(stderr, "loader-tool sign: cannot write the list\n");
    return 1;
  }

  // A list for a loader built with other keys is a normal use; say so all
  // the same, since with the wrong key the loader refuses every file.
  EfiLoader::DigestList digests;
  if (EfiLoader::LoadChecksums(list, digests).IsError())
    std::fprintf(stderr,
                 "loader-tool sign: note: '%s' is not one of the keys built into this "
                 "loader-tool; only a loader built with it accepts the list\n",
                 keyPath);
  return 0;
}

int Verify(int argc, char** argv) {
  if (argc < 1) {
    std::fprintf(stderr, "usage: loader-tool verify LIST.sig FILE...\n");
    return 2;
  }
  std::string text;
  if (Error e = ReadWholeFile(argv[0], text); e.IsError()) return Report("verify", e);
  EfiLoader::DigestList digests;
  if (Error e = EfiLoader::LoadChecksums(text, digests); e.IsError()) return Report("verify", e);
  std::printf("%s: signature valid, %zu digest%s\n", argv[0], digests.size(),
              digests.size() == 1 ? "" : "s");

  int status = 0;
  for (int i = 1; i < argc; ++i) {
    Error err;
    auto file = PosixFile::Open(argv[i], PosixFile::Mode::Read, err);
    bool listed = false;
    if (file) {
      try {
        listed = EfiLoader::IsHashValid(*file, digests);
      } catch (const Error& e) {
        err = e;
      }
    }
    if (err.IsError()) {
      std::printf("%s: ERROR\n", argv[i]);
      Report("verify", err);
    } else {
      std::printf("%s: %s\n", argv[i], listed ? "OK" : "FAILED");
    }
    if (!listed) status = 1;
  }
  return status;
}

tool::Registrar signReg("sign", "sign --key PRIVATE.pem FILE... > LIST.sig   write a signed digest list",
                        &Sign);
tool::Registrar verifyReg(
    "verify",
    "verify LIST.sig FILE...   check a list's signature and each file's digest as the loader does",
    &Verify);

}  // namespace
