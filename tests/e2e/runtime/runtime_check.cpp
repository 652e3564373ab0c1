// Checks of the C and C++ runtime that the firmware image brings along.
//
// Built twice: for the host, where glibc and libstdc++ must agree with every
// expectation here (so a wrong expectation cannot hide a fault), and as its
// own EFI image, where the image's runtime must agree too.  Prints one line
// per failed case and a summary; the exit handlers print their order last.
// Truncation is what some cases are about.
#pragma GCC diagnostic ignored "-Wformat-truncation"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#ifdef LOADER_EFI
#include <zlib.h>

#include "7zCrc.h"
#include "Xz.h"
#include "XzCrc64.h"
#include "efi/uefi/platform.h"
// The long-standing key calls that signature checking makes.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#endif

namespace {

int g_passed = 0;
int g_failed = 0;

void Check(bool ok, const char* what, int line) {
  if (ok) {
    ++g_passed;
  } else {
    ++g_failed;
    printf("FAILED (line %d): %s\n", line, what);
  }
}

#define CHECK(condition) Check((condition), #condition, __LINE__)

__attribute__((format(printf, 3, 4))) void CheckFormat(int line, const char* expected, const char* format,
                                                       ...) {
  char buffer[128];
  va_list args;
  va_start(args, format);
  int length = vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  bool ok = strcmp(buffer, expected) == 0 && length == static_cast<int>(strlen(expected));
  if (!ok) printf("FAILED (line %d): format \"%s\" gave \"%s\" (%d), not \"%s\"\n", line, format, buffer, length, expected);
  ok ? ++g_passed : ++g_failed;
}

#define CHECK_FORMAT(expected, ...) CheckFormat(__LINE__, expected, __VA_ARGS__)

// ---- formatted output ------------------------------------------------------

void CheckFormatting() {
  CHECK_FORMAT("0", "%d", 0);
  CHECK_FORMAT("-42", "%d", -42);
  CHECK_FORMAT("12", "%i", 12);
  CHECK_FORMAT("   42", "%5d", 42);
  CHECK_FORMAT("42   |", "%-5d|", 42);
  CHECK_FORMAT("-0042", "%05d", -42);
  CHECK_FORMAT("+5 5", "%+d% d", 5, 5);
  CHECK_FORMAT("007", "%.3d", 7);
  CHECK_FORMAT("    -007", "%8.3d", -7);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  CHECK_FORMAT("   12", "%05.2d", 12);  // a precision turns the '0' flag off
#pragma GCC diagnostic pop
  CHECK_FORMAT("", "%.0d", 0);
  CHECK_FORMAT("-2147483648", "%d", INT_MIN);
  CHECK_FORMAT("4294967295", "%u", 4294967295u);
  CHECK_FORMAT("ff FF", "%x %X", 255, 255);
  CHECK_FORMAT("0xff 0", "%#x %#x", 255, 0);
  CHECK_FORMAT("0000BEEF", "%08X", 0xBEEF);
  CHECK_FORMAT("10 010", "%o %#o", 8, 8);
  CHECK_FORMAT("123456789abcdef", "%lx", 0x123456789abcdefUL);
  CHECK_FORMAT("ffffffffffffffff", "%llx", ~0ULL);
  CHECK_FORMAT("18446744073709551615", "%llu", ~0ULL);
  CHECK_FORMAT("-9223372036854775808", "%lld", LLONG_MIN);
  CHECK_FORMAT("-1 4294967296", "%ld %lu", -1L, 4294967296UL);
  CHECK_FORMAT("123", "%zu", static_cast<size_t>(123));
  CHECK_FORMAT("1 -1", "%hhu %hd", 257, 65535);
  CHECK_FORMAT("abc", "%s", "abc");
  CHECK_FORMAT("   ab|ab   |", "%5s|%-5s|", "ab", "ab");
  CHECK_FORMAT("ab", "%.2s", "abcdef");
  CHECK_FORMAT("abc", "%.*s", 3, "abcdef");
  CHECK_FORMAT("     1|1   |", "%*d|%-*d|", 6, 1, 4, 1);
  CHECK_FORMAT("A  A|", "%c%3c|", 'A', 'A');
  CHECK_FORMAT("100%", "%d%%", 100);
  CHECK_FORMAT("0x1234", "%p", reinterpret_cast<void*>(0x1234));
  CHECK_FORMAT("3.14 1.500000 -1.235", "%.2f %f %.3f", 3.14159, 1.5, -1.2346);
  CHECK_FORMAT("0012ABCD-0001-FFFF-0102-030405060708", "%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X",
               0x12ABCDUL, 1, 0xFFFF, 1, 2, 3, 4, 5, 6, 7, 8);

  // Truncation keeps the terminator and reports the full length.
  char small[5];
  CHECK(snprintf(small, sizeof small, "%s", "abcdefgh") == 8 && strcmp(small, "abcd") == 0);
  CHECK(snprintf(nullptr, 0, "%d", 12345) == 5);
  char exact[4] = {'x', 'x', 'x', 'x'};
  CHECK(snprintf(exact, 1, "abc") == 3 && exact[0] == '\0' && exact[1] == 'x');

#ifdef LOADER_EFI
  // Wide texts (UTF-16 in the image, where wchar_t is the firmware's
  // 16-bit CHAR16) come out as UTF-8.
  CHECK_FORMAT("Ab\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80|", "%ls|", L"Ab\u00E9\u20AC\U0001F600");
  CHECK_FORMAT("  ab|ab  |", "%4ls|%-4ls|", L"ab", L"ab");
  CHECK_FORMAT("abc", "%.3ls", L"abcdef");
#endif
}

// ---- numbers and strings ------------------------------------------------------

void CheckParsing() {
  struct Case {
    const char* text;
    int base;
    long value;
    int consumed;
    bool range;
  };
  static const Case kSigned[] = {
      {"123", 10, 123, 3, false},
      {"  -0x1F", 16, -31, 7, false},
      {"0x1F", 0, 31, 4, false},
      {"017", 0, 15, 3, false},
      {"zz", 36, 1295, 2, false},
      {"12abc", 10, 12, 2, false},
      {"abc", 10, 0, 0, false},
      {"0x", 16, 0, 1, false},
      {"+7", 10, 7, 2, false},
      {"9223372036854775807", 10, LONG_MAX, 19, false},
      {"9223372036854775808", 10, LONG_MAX, 19, true},
      {"-9223372036854775808", 10, LONG_MIN, 20, false},
      {"-9223372036854775809", 10, LONG_MIN, 20, true},
  };
  for (const Case& c : kSigned) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(c.text, &end, c.base);
    bool ok = value == c.value && end == c.text + c.consumed && (errno == ERANGE) == c.range;
    if (!ok) printf("FAILED: strtol(\"%s\", %d) gave %ld, consumed %d\n", c.text, c.base, value, int(end - c.text));
    ok ? ++g_passed : ++g_failed;
  }
  char* end = nullptr;
  errno = 0;
  CHECK(strtoul("-1", &end, 10) == ULONG_MAX && *end == '\0' && errno == 0);
  CHECK(strtoul("18446744073709551616", nullptr, 10) == ULONG_MAX && errno == ERANGE);
  errno = 0;
  CHECK(strtoull("ffffffffffffffff", nullptr, 16) == ~0ULL && errno == 0);
  CHECK(strtoll("-0777", nullptr, 0) == -511);
  CHECK(atoi("  42x") == 42);
}

void CheckStrings() {
  CHECK(memcmp("abc", "abd", 3) < 0 && memcmp("abd", "abc", 3) > 0 && memcmp("ab\x80", "ab\x01", 3) > 0);
  CHECK(strcmp("abc", "abc") == 0 && strcmp("ab", "abc") < 0 && strcmp("\xff", "a") > 0);
  CHECK(strncmp("abcX", "abcY", 3) == 0 && strncmp("abcX", "abcY", 4) < 0);
  CHECK(strcasecmp("HeLLo", "hello") == 0 && strncasecmp("ABx", "aby", 2) == 0);
  const char* text = "a/b/c";
  CHECK(strchr(text, '/') == text + 1 && strrchr(text, '/') == text + 3 && strchr(text, '\0') == text + 5);
  CHECK(strchr(text, 'x') == nullptr && strstr(text, "b/c") == text + 2 && strstr(text, "") == text);
  CHECK(strstr(text, "c/") == nullptr && strlen(text) == 5 && strnlen(text, 3) == 3);
  CHECK(memchr(text, 'c', 5) == text + 4 && memchr(text, 'c', 4) == nullptr);

  char padded[6];
  memset(padded, 'x', sizeof padded);
  strncpy(padded, "ab", sizeof padded);
  CHECK(memcmp(padded, "ab\0\0\0\0", 6) == 0);

  // Overlapping moves in both directions.
  char up[] = "0123456789";
  memmove(up + 2, up, 6);
  CHECK(strcmp(up, "0101234589") == 0);
  char down[] = "0123456789";
  memmove(down, down + 3, 7);
  CHECK(strcmp(down, "3456789789") == 0);

  // Large blocks: the copy and fill paths for kernels and RAM disks.
  const size_t size = 3 * 1024 * 1024 + 7;
  auto* a = static_cast<unsigned char*>(malloc(size));
  auto* b = static_cast<unsigned char*>(malloc(size));
  CHECK(a && b);
  if (a && b) {
    for (size_t i = 0; i < size; ++i) a[i] = static_cast<unsigned char>(i * 7 + (i >> 13));
    memcpy(b, a, size);
    CHECK(memcmp(a, b, size) == 0);
    memset(b + 1, 0xA5, size - 2);
    CHECK(b[0] == a[0] && b[1] == 0xA5 && b[size - 2] == 0xA5 && b[size - 1] == a[size - 1]);
  }
  free(a);
  free(b);
}

// ---- heap ------------------------------------------------------------------------

void CheckHeap() {
  bool aligned = true;
  std::vector<void*> blocks;
  for (size_t size = 0; size < 300; ++size) {
    void* p = malloc(size);
    aligned = aligned && p && reinterpret_cast<uintptr_t>(p) % 16 == 0;
    blocks.push_back(p);
  }
  for (void* p : blocks) free(p);
  CHECK(aligned);

  void* page = aligned_alloc(4096, 8192);
  CHECK(page && reinterpret_cast<uintptr_t>(page) % 4096 == 0);
  free(page);

  auto* zeroed = static_cast<unsigned char*>(calloc(1000, 3));
  CHECK(zeroed && std::all_of(zeroed, zeroed + 3000, [](unsigned char c) { return c == 0; }));
  free(zeroed);

  // calloc must notice that count * size does not fit.
  volatile size_t many = SIZE_MAX / 2;
  CHECK(calloc(many, 4) == nullptr);

  auto* grown = static_cast<char*>(malloc(10));
  memcpy(grown, "0123456789", 10);
  grown = static_cast<char*>(realloc(grown, 100000));
  CHECK(grown && memcmp(grown, "0123456789", 10) == 0);
  grown = static_cast<char*>(realloc(grown, 5));
  CHECK(grown && memcmp(grown, "01234", 5) == 0);
  free(grown);
}

// ---- C++ -----------------------------------------------------------------------------

int g_constructed = 0;
// Keeps the compiler from leaving out an allocation whose result is unused.
char* volatile g_sink;

struct StaticObject {
  StaticObject() { g_constructed = 42; }
  ~StaticObject() { printf("exit: static destructor\n"); }
};
StaticObject g_static;

int g_alive = 0;
struct Tracked {
  Tracked() { ++g_alive; }
  Tracked(const Tracked&) { ++g_alive; }
  ~Tracked() { --g_alive; }
};

struct Base {
  virtual ~Base() = default;
  virtual int Kind() const { return 1; }
};
struct Derived : Base {
  int Kind() const override { return 2; }
};

struct CheckError {
  int code;
};

struct Thrower {
  Tracked member;
  explicit Thrower(int code) { throw CheckError{code}; }
};

__attribute__((noinline)) void ThrowDeep(int depth) {
  Tracked here;
  if (depth == 0) throw std::runtime_error("deep");
  ThrowDeep(depth - 1);
}

__attribute__((noinline)) int Rethrow() {
  try {
    ThrowDeep(3);
  } catch (...) {
    throw;
  }
  return 0;
}

void CheckExceptions() {
  CHECK(g_constructed == 42);  // constructors of static objects ran

  bool caught = false;
  try {
    ThrowDeep(10);
  } catch (const std::exception& e) {
    caught = strcmp(e.what(), "deep") == 0;
  }
  CHECK(caught && g_alive == 0);

  caught = false;
  try {
    Rethrow();
  } catch (const std::runtime_error&) {
    caught = true;
  }
  CHECK(caught && g_alive == 0);

  // A constructor that throws destroys the members it had built.
  int code = 0;
  try {
    Thrower t(7);
  } catch (const CheckError& e) {
    code = e.code;
  }
  CHECK(code == 7 && g_alive == 0);

  // Through a virtual call and std::function.
  std::function<void()> f = [] { throw 5; };
  int thrown = 0;
  try {
    f();
  } catch (int value) {
    thrown = value;
  }
  CHECK(thrown == 5);

  // The library's own checks reach the program as exceptions.
  std::vector<int> three(3);
  std::string what;
  try {
    (void)three.at(5);
  } catch (const std::exception& e) {
    what = e.what();
  }
  CHECK(what.find("_M_range_check") != std::string::npos);

  std::function<void()> empty;
  what.clear();
  try {
    empty();
  } catch (const std::exception& e) {
    what = e.what();
  }
  CHECK(what.find("bad_function_call") != std::string::npos);

  bool noMemory = false;
  try {
    volatile size_t huge = SIZE_MAX / 4;
    g_sink = new char[huge];
    delete[] g_sink;
  } catch (const std::bad_alloc&) {
    noMemory = true;
  }
  CHECK(noMemory);

  // RTTI.
  std::unique_ptr<Base> object = std::make_unique<Derived>();
  CHECK(dynamic_cast<Derived*>(object.get()) != nullptr && object->Kind() == 2);
  CHECK(typeid(*object) == typeid(Derived) && typeid(*object) != typeid(Base));
}

void CheckContainers() {
  std::vector<std::string> words;
  for (int i = 0; i < 2000; ++i) words.push_back("word-" + std::to_string(i));
  CHECK(words.size() == 2000 && words[1999] == "word-1999");

  // Many inserts and erases in scrambled order: every rebalancing case of
  // the red-black tree comes up.
  std::map<std::string, int> map;
  for (int i = 0; i < 2000; ++i) map[words[(i * 7919) % 2000]] = i;
  for (int i = 0; i < 2000; i += 3) map.erase(words[(i * 104729) % 2000]);
  bool sorted = std::is_sorted(map.begin(), map.end(),
                               [](const auto& a, const auto& b) { return a.first < b.first; });
  CHECK(sorted && map.size() == 2000 - 667);

  std::vector<int> numbers;
  for (int i = 0; i < 5000; ++i) numbers.push_back((i * 7919) % 5003);
  std::sort(numbers.begin(), numbers.end());
  CHECK(std::is_sorted(numbers.begin(), numbers.end()) &&
        std::adjacent_find(numbers.begin(), numbers.end()) == numbers.end());

  std::u16string wide = u"\\EFI\\BOOT\\BOOTX64.EFI";
  size_t dot = wide.rfind(u'.');
  std::u16string config = wide.substr(0, dot + 1) + u"xml";
  CHECK(config == u"\\EFI\\BOOT\\BOOTX64.xml" && config.size() == 21);

  {
    auto shared = std::make_shared<Tracked>();
    std::weak_ptr<Tracked> weak = shared;
    auto copy = shared;
    CHECK(shared.use_count() == 2 && g_alive == 1);
    copy.reset();
    shared.reset();
    CHECK(weak.expired() && g_alive == 0);
  }
  {
    int deleted = 0;
    auto deleter = [&deleted](int* p) {
      ++deleted;
      delete p;
    };
    { std::unique_ptr<int, decltype(deleter)> owned(new int(3), deleter); }
    CHECK(deleted == 1);
  }
}

#ifdef LOADER_EFI
void CheckFirmware() {
  EFI_SYSTEM_TABLE* st = Uefi::SystemTable();
  CHECK(st != nullptr && Uefi::ImageHandle() != nullptr && Uefi::BootServicesAvailable());
  CHECK(st && st->Hdr.Revision >= 0x1000A && Uefi::BootServices() == st->BootServices);
  // Not set by anything in a plain firmware boot.
  CHECK(getenv("USE_STDERR_DEV") == nullptr);
}
#endif

#ifdef LOADER_EFI
// The third-party C libraries compiled for the image.
void CheckLibraries() {
  static const char kNine[] = "123456789";
  CHECK(crc32(0, reinterpret_cast<const Bytef*>(kNine), 9) == 0xCBF43926u);

  // Raw deflate and inflate, as the gzip streams use them.
  std::string text;
  for (int i = 0; i < 300; ++i) text += "the firmware image compresses this line, number " + std::to_string(i % 7) + "\n";
  std::vector<unsigned char> packed(text.size() + 1024);
  z_stream z{};
  bool deflated = deflateInit2(&z, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) == Z_OK;
  z.next_in = reinterpret_cast<Bytef*>(text.data());
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = packed.data();
  z.avail_out = static_cast<uInt>(packed.size());
  deflated = deflated && deflate(&z, Z_FINISH) == Z_STREAM_END;
  size_t packedSize = z.total_out;
  deflateEnd(&z);
  CHECK(deflated && packedSize < text.size() / 10);

  std::string unpacked(text.size(), '\0');
  z = z_stream{};
  bool inflated = inflateInit2(&z, -15) == Z_OK;
  z.next_in = packed.data();
  z.avail_in = static_cast<uInt>(packedSize);
  z.next_out = reinterpret_cast<Bytef*>(unpacked.data());
  z.avail_out = static_cast<uInt>(unpacked.size());
  inflated = inflated && inflate(&z, Z_FINISH) == Z_STREAM_END;
  inflateEnd(&z);
  CHECK(inflated && unpacked == text);

  // An xz stream (CRC-64 check) made by xz(1).
  static const unsigned char kXz[] = {
      0xfd, 0x37, 0x7a, 0x58, 0x5a, 0x00, 0x00, 0x04, 0xe6, 0xd6, 0xb4, 0x46, 0x02, 0x00, 0x21, 0x01, 0x16,
      0x00, 0x00, 0x00, 0x74, 0x2f, 0xe5, 0xa3, 0x01, 0x00, 0x1c, 0x78, 0x7a, 0x20, 0x69, 0x6e, 0x73, 0x69,
      0x64, 0x65, 0x20, 0x74, 0x68, 0x65, 0x20, 0x66, 0x69, 0x72, 0x6d, 0x77, 0x61, 0x72, 0x65, 0x20, 0x69,
      0x6d, 0x61, 0x67, 0x65, 0x0a, 0x00, 0x00, 0x00, 0x00, 0x5b, 0x3e, 0x54, 0x87, 0x51, 0xf9, 0xcf, 0x5c,
      0x00, 0x01, 0x35, 0x1d, 0x44, 0x1b, 0xb1, 0xe1, 0x1f, 0xb6, 0xf3, 0x7d, 0x01, 0x00, 0x00, 0x00, 0x00,
      0x04, 0x59, 0x5a};
  static const ISzAlloc kAlloc = {[](ISzAllocPtr, size_t size) { return malloc(size); },
                                  [](ISzAllocPtr, void* p) { free(p); }};
  CrcGenerateTable();
  Crc64GenerateTable();
  CXzUnpacker unpacker;
  XzUnpacker_Construct(&unpacker, &kAlloc);
  char out[64] = {};
  SizeT outLength = sizeof out - 1;
  SizeT inLength = sizeof kXz;
  ECoderStatus status;
  SRes result = XzUnpacker_Code(&unpacker, reinterpret_cast<Byte*>(out), &outLength, kXz, &inLength, 1,
                                CODER_FINISH_END, &status);
  bool finished = result == SZ_OK && XzUnpacker_IsStreamWasFinished(&unpacker);
  XzUnpacker_Free(&unpacker);
  CHECK(finished && strcmp(out, "xz inside the firmware image\n") == 0);
}
#endif

#ifdef LOADER_EFI
// One signature check as the loader makes it: a DER public key, SHA-256
// for RSA and SHA-1 for DSA, the data through the digest, then the verdict.
bool VerifyWithLibcrypto(bool rsa, const unsigned char* der, long derLength, const char* data,
                         const unsigned char* signature, unsigned signatureLength) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_create();
  EVP_PKEY* pkey = EVP_PKEY_new();
  bool ok = ctx && pkey && EVP_DigestInit_ex(ctx, rsa ? EVP_sha256() : EVP_sha1(), nullptr) == 1;
  const unsigned char* p = der;
  if (ok && rsa) {
    RSA* key = d2i_RSA_PUBKEY(nullptr, &p, derLength);
    ok = key && EVP_PKEY_set1_RSA(pkey, key) == 1;
    RSA_free(key);
  } else if (ok) {
    DSA* key = d2i_DSA_PUBKEY(nullptr, &p, derLength);
    ok = key && EVP_PKEY_set1_DSA(pkey, key) == 1;
    DSA_free(key);
  }
  ok = ok && EVP_DigestUpdate(ctx, data, strlen(data)) == 1 &&
       EVP_VerifyFinal(ctx, signature, signatureLength, pkey) == 1;
  EVP_PKEY_free(pkey);
  EVP_MD_CTX_destroy(ctx);
  return ok;
}

// libcrypto: SHA-256, and RSA 2048 and DSA 1024 signatures made by
// openssl(1) over one line of text, with throw-away keys.
void CheckCrypto() {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256_CTX sha;
  SHA256_Init(&sha);
  SHA256_Update(&sha, "a", 1);
  SHA256_Update(&sha, "bc", 2);
  SHA256_Final(digest, &sha);
  static const unsigned char kAbc[] = {0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea, 0x41, 0x41, 0x40,
                                       0xde, 0x5d, 0xae, 0x22, 0x23, 0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17,
                                       0x7a, 0x9c, 0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad};
  CHECK(memcmp(digest, kAbc, sizeof kAbc) == 0);

  static const unsigned char kRsaKey[] = {
      0x30, 0x82, 0x01, 0x22, 0x30, 0x0d, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01,
      0x05, 0x00, 0x03, 0x82, 0x01, 0x0f, 0x00, 0x30, 0x82, 0x01, 0x0a, 0x02, 0x82, 0x01, 0x01, 0x00, 0xe5,
      0x4f, 0x31, 0x2f, 0x3e, 0x90, 0x22, 0x0f, 0x3e, 0xc5, 0xe1, 0x6b, 0x11, 0xaa, 0x38, 0xbd, 0xf1, 0xfe,
      0xb8, 0x8b, 0x28, 0xa3, 0x4b, 0xf0, 0xdb, 0xab, 0x87, 0x28, 0x90, 0xba, 0x46, 0x2c, 0x24, 0x0c, 0x63,
      0xc2, 0x17, 0xb0, 0x00, 0x11, 0x1a, 0x71, 0x6a, 0x15, 0xcf, 0x81, 0x77, 0xb2, 0xd9, 0x3f, 0x6d, 0x1b,
      0x83, 0x0a, 0x49, 0x93, 0x7c, 0xf2, 0x00, 0x1f, 0x57, 0xd1, 0x74, 0x10, 0x2f, 0x82, 0x2e, 0x05, 0xa3,
      0x2d, 0x30, 0x43, 0xa7, 0x2e, 0x68, 0x26, 0x96, 0xed, 0x1c, 0xab, 0xf3, 0xe4, 0x4e, 0x28, 0xd3, 0xfb,
      0x7b, 0x62, 0x3d, 0xac, 0x28, 0x56, 0x2e, 0xa1, 0x60, 0x39, 0x2d, 0xd4, 0xfe, 0x9c, 0x2b, 0xae, 0xec,
      0x6c, 0x84, 0x05, 0xec, 0xbf, 0x78, 0x7a, 0xb8, 0x1a, 0x0f, 0x8f, 0x88, 0x93, 0x1c, 0x08, 0x26, 0x55,
      0xc3, 0x0c, 0x6e, 0xe2, 0x1a, 0x68, 0xcd, 0xa1, 0x09, 0xfb, 0x53, 0x76, 0x11, 0x6b, 0x9e, 0x68, 0x82,
      0xc4, 0x20, 0x68, 0x12, 0xe5, 0xbc, 0x99, 0x3e, 0x59, 0x0a, 0x49, 0xc3, 0x40, 0x85, 0xbb, 0x67, 0x43,
      0xa3, 0x9d, 0x27, 0x75, 0x07, 0xdb, 0xa3, 0x5b, 0x1e, 0xf1, 0x59, 0xa4, 0x89, 0xe8, 0xf2, 0x3b, 0xa0,
      0x2a, 0xf0, 0x95, 0x52, 0x61, 0x15, 0xa5, 0x5b, 0x07, 0x3c, 0xcb, 0x09, 0x7f, 0xda, 0x71, 0x62, 0x60,
      0x72, 0x50, 0x62, 0x6c, 0x80, 0xfc, 0x1e, 0x97, 0x52, 0xce, 0xf3, 0x60, 0x83, 0x81, 0x2d, 0xe1, 0xf6,
      0x75, 0x08, 0x81, 0x07, 0x5c, 0x3c, 0xfe, 0x49, 0xca, 0xf7, 0x39, 0x37, 0x54, 0x2d, 0x89, 0x79, 0x36,
      0x32, 0x9c, 0x91, 0x44, 0xea, 0x30, 0x9a, 0x0e, 0x80, 0xc1, 0xb1, 0x91, 0x41, 0xc5, 0xac, 0x35, 0xe3,
      0xec, 0x3f, 0xe4, 0xb3, 0xc4, 0x5b, 0xdf, 0x8b, 0x3a, 0xde, 0x09, 0x82, 0x9e, 0xa5, 0x5f, 0x3f, 0x2d,
      0x02, 0x03, 0x01, 0x00, 0x01,};
  static const unsigned char kRsaSignature[] = {
      0x88, 0xd9, 0x2e, 0x53, 0xd3, 0xd9, 0x7f, 0xc7, 0xb3, 0x71, 0x32, 0xb0, 0x7c, 0x70, 0xaa, 0x60, 0x1d,
      0x26, 0x84, 0xa8, 0xe8, 0x97, 0xa3, 0xac, 0x5d, 0x05, 0xf7, 0x92, 0xd7, 0x73, 0x16, 0xd3, 0x5d, 0x0a,
      0xbe, 0xb0, 0xa6, 0x6c, 0x26, 0x78, 0x81, 0x86, 0x21, 0x16, 0x5a, 0xac, 0xe0, 0xde, 0x93, 0x1b, 0x12,
      0xc0, 0x95, 0x58, 0xc4, 0x3d, 0x39, 0x58, 0x0c, 0xbe, 0xb4, 0x82, 0x59, 0xe7, 0x8f, 0xd9, 0xa4, 0xf3,
      0x14, 0x46, 0xa6, 0xe1, 0x71, 0x14, 0x26, 0x7f, 0xa8, 0x8a, 0xdc, 0x29, 0xbc, 0x9c, 0xe7, 0xc9, 0xfc,
      0x6d, 0x86, 0xdd, 0xb2, 0xb7, 0xc9, 0xb8, 0x7a, 0xa9, 0x6d, 0x24, 0x46, 0x04, 0x01, 0x69, 0x16, 0x55,
      0x98, 0x21, 0x13, 0xf1, 0xb5, 0xd3, 0xb8, 0x44, 0x71, 0xea, 0xc7, 0x72, 0x86, 0x1d, 0x08, 0x58, 0x70,
      0xd3, 0x0f, 0x4b, 0xca, 0x7c, 0x79, 0x83, 0xda, 0xbf, 0x92, 0x86, 0xd7, 0xaa, 0x6f, 0x8c, 0x5f, 0x40,
      0x32, 0x6c, 0x9a, 0x6a, 0xbe, 0x7b, 0x98, 0x3b, 0x82, 0xc3, 0x03, 0xc0, 0x79, 0x9e, 0x11, 0x6d, 0xdf,
      0x3b, 0xe1, 0x70, 0x57, 0x09, 0xf6, 0xf3, 0x9f, 0x87, 0x51, 0x7f, 0x65, 0x6e, 0x04, 0xef, 0x75, 0xfc,
      0x9c, 0xb0, 0xb1, 0xac, 0x36, 0xc7, 0x06, 0xa0, 0x63, 0x23, 0x78, 0x71, 0xe9, 0x89, 0x32, 0x67, 0x20,
      0xd4, 0xb3, 0x69, 0x9d, 0x2e, 0x70, 0xf0, 0x1e, 0xa5, 0x5e, 0x28, 0xc6, 0x59, 0xc6, 0x7a, 0x69, 0x2b,
      0xda, 0x0d, 0x3a, 0xca, 0x6e, 0x57, 0xed, 0x29, 0xfd, 0x30, 0x96, 0xd4, 0xf0, 0x43, 0xd2, 0x4d, 0x64,
      0xf2, 0x67, 0x78, 0xaf, 0xfc, 0x43, 0x54, 0x1f, 0x88, 0xad, 0x46, 0x8f, 0x7b, 0x94, 0x3d, 0x6f, 0x02,
      0xe3, 0x1b, 0x12, 0x7c, 0xcd, 0x0a, 0x43, 0x7e, 0x78, 0x7c, 0x0a, 0x49, 0x53, 0x41, 0x43, 0xca, 0x44,
      0x22,};
  static const unsigned char kDsaKey[] = {
      0x30, 0x82, 0x01, 0xb6, 0x30, 0x82, 0x01, 0x2b, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x38, 0x04, 0x01,
      0x30, 0x82, 0x01, 0x1e, 0x02, 0x81, 0x81, 0x00, 0x87, 0xfa, 0x9b, 0x16, 0x5c, 0x43, 0x8e, 0xa3, 0x58,
      0xbe, 0xab, 0x80, 0x77, 0xbc, 0xdb, 0x0e, 0x76, 0xeb, 0x6b, 0xc0, 0xeb, 0x34, 0xb7, 0xf5, 0x33, 0x6d,
      0x83, 0xce, 0xfc, 0x88, 0x7f, 0x52, 0xef, 0x3c, 0x8e, 0x56, 0x04, 0x1c, 0x03, 0x2b, 0x15, 0x27, 0x84,
      0xcb, 0xc5, 0xdf, 0x54, 0xd1, 0x3e, 0xdf, 0x18, 0xce, 0xa9, 0xea, 0x7e, 0x38, 0xf8, 0xa6, 0x76, 0x32,
      0xdf, 0xdc, 0x72, 0x3a, 0x83, 0x1c, 0x27, 0x94, 0xf7, 0xe7, 0xdc, 0xd5, 0x59, 0x69, 0xec, 0x6d, 0x33,
      0xc0, 0x97, 0x6b, 0x1f, 0xd5, 0x0d, 0x82, 0x46, 0xf0, 0x93, 0x32, 0x04, 0xf3, 0x3b, 0x13, 0x0e, 0x70,
      0x7e, 0xaa, 0x9c, 0x84, 0x10, 0xc9, 0x0a, 0xb0, 0x1b, 0xc1, 0x33, 0x81, 0x92, 0x41, 0x28, 0x2f, 0x2f,
      0x79, 0x16, 0xc3, 0x51, 0xfd, 0x31, 0xc9, 0xb8, 0x7a, 0x6b, 0x86, 0x11, 0xc3, 0x34, 0x3c, 0x9a, 0x77,
      0x02, 0x15, 0x00, 0xbf, 0x4b, 0xcb, 0x45, 0x71, 0x0a, 0x84, 0x64, 0x98, 0x19, 0x47, 0xe3, 0xc8, 0x43,
      0xb7, 0xb7, 0x09, 0xf7, 0x4c, 0xd5, 0x02, 0x81, 0x80, 0x03, 0xc7, 0xad, 0x15, 0x69, 0x7f, 0x4b, 0x03,
      0x72, 0x4f, 0x11, 0xf4, 0x96, 0x62, 0x60, 0x30, 0xa9, 0x21, 0x66, 0xb1, 0x2a, 0x57, 0xb1, 0xa1, 0xcd,
      0xbf, 0xa2, 0x9e, 0x51, 0x20, 0xb8, 0x66, 0x6c, 0x08, 0xae, 0x5e, 0x00, 0x27, 0x52, 0x68, 0xda, 0xae,
      0x75, 0x63, 0xe0, 0x68, 0xe4, 0x6a, 0xb7, 0xb6, 0x4d, 0xed, 0x41, 0x75, 0x1e, 0xfe, 0x6d, 0xf8, 0x80,
      0x72, 0x29, 0x76, 0xd4, 0xb6, 0xfb, 0xbd, 0x6a, 0x02, 0x26, 0x23, 0x59, 0xaa, 0x0a, 0x60, 0x1d, 0xfa,
      0x8a, 0x7a, 0xf0, 0x43, 0xf6, 0x33, 0xa3, 0x5f, 0xe1, 0x69, 0xf9, 0xe1, 0x7b, 0xbf, 0x70, 0x8e, 0x6d,
      0x50, 0xd5, 0xa7, 0x6f, 0xc2, 0x8f, 0xe9, 0xb9, 0x21, 0xf1, 0x87, 0x93, 0x7d, 0x50, 0x9b, 0x1e, 0xd0,
      0x91, 0x9f, 0x46, 0x07, 0x60, 0x45, 0xaf, 0x10, 0x0c, 0xa9, 0x13, 0x83, 0xf4, 0x1a, 0x43, 0x38, 0x82,
      0x35, 0x03, 0x81, 0x84, 0x00, 0x02, 0x81, 0x80, 0x3a, 0x52, 0x90, 0xb8, 0x72, 0xf6, 0x21, 0xd7, 0x22,
      0xc2, 0x5d, 0x2f, 0xa0, 0xcb, 0x43, 0xf2, 0xff, 0xb4, 0xc0, 0xbc, 0xf6, 0xfa, 0xa8, 0x82, 0x6f, 0x86,
      0x34, 0xd0, 0x87, 0x5f, 0xbf, 0xa2, 0xb5, 0x05, 0x1a, 0x51, 0xca, 0x64, 0x00, 0xea, 0x26, 0x6d, 0x85,
      0x2e, 0x3f, 0x3d, 0xe6, 0xad, 0x92, 0xee, 0x3b, 0x24, 0x25, 0x09, 0xf8, 0x00, 0x03, 0xa7, 0xd5, 0x4c,
      0x8b, 0xd6, 0x08, 0x73, 0x1a, 0x65, 0x1e, 0x92, 0x41, 0x7f, 0x7c, 0x59, 0x6b, 0x9c, 0x11, 0x17, 0x94,
      0x10, 0xe0, 0xcf, 0x79, 0x63, 0x1b, 0x37, 0xbc, 0xb9, 0xfe, 0xd4, 0xb3, 0x4b, 0x9f, 0xbb, 0x11, 0xae,
      0x5c, 0xaa, 0x14, 0x3e, 0x1a, 0x36, 0x81, 0x77, 0x7c, 0x2f, 0x5a, 0x5c, 0xff, 0xe9, 0x04, 0x76, 0x50,
      0x39, 0xf6, 0x89, 0xfa, 0x99, 0x0a, 0x61, 0x7b, 0xc9, 0x5b, 0x6e, 0x74, 0x06, 0x93, 0x5e, 0x44, 0xfd,};
  static const unsigned char kDsaSignature[] = {
      0x30, 0x2c, 0x02, 0x14, 0x09, 0xf3, 0x06, 0x2c, 0x5b, 0x84, 0x9f, 0xd1, 0x94, 0x0d, 0xe9, 0x56, 0x7b,
      0x5a, 0xe6, 0xe7, 0xd3, 0x4b, 0xf4, 0xcc, 0x02, 0x14, 0x0b, 0x30, 0xb1, 0x1b, 0x89, 0x96, 0xeb, 0x14,
      0x01, 0x5d, 0x8c, 0x65, 0x63, 0x59, 0x1d, 0x20, 0x6d, 0x01, 0xaa, 0xff,};
  const char* text = "signed inside the firmware image\n";
  CHECK(VerifyWithLibcrypto(true, kRsaKey, sizeof kRsaKey, text, kRsaSignature, sizeof kRsaSignature));
  CHECK(VerifyWithLibcrypto(false, kDsaKey, sizeof kDsaKey, text, kDsaSignature, sizeof kDsaSignature));
  const char* altered = "signed inside the firmware imagE\n";
  CHECK(!VerifyWithLibcrypto(true, kRsaKey, sizeof kRsaKey, altered, kRsaSignature, sizeof kRsaSignature));
  CHECK(!VerifyWithLibcrypto(false, kDsaKey, sizeof kDsaKey, altered, kDsaSignature, sizeof kDsaSignature));
  CHECK(!VerifyWithLibcrypto(true, kRsaKey, sizeof kRsaKey, text, kDsaSignature, sizeof kDsaSignature));
  CHECK(!VerifyWithLibcrypto(true, kDsaKey, sizeof kDsaKey, text, kRsaSignature, sizeof kRsaSignature));
  CHECK(!VerifyWithLibcrypto(false, kDsaKey, 200, text, kDsaSignature, sizeof kDsaSignature));
}
#endif

void ExitHandler1() { printf("exit: handler 1\n"); }
void ExitHandler2() { printf("exit: handler 2\n"); }

}  // namespace

int main(int argc, char** argv) {
  printf("runtime check: start\n");
  // The arguments as the program got them (from the firmware's shell, in
  // the image), each in brackets.
  printf("runtime check: %d arguments:", argc);
  for (int i = 0; i < argc; ++i) printf(" [%s]", argv[i]);
  printf("%s\n", argc >= 0 && (argc == 0 || argv[argc] == nullptr) ? "" : " (no final null)");
  CheckFormatting();
  CheckParsing();
  CheckStrings();
  CheckHeap();
  CheckExceptions();
  CheckContainers();
#ifdef LOADER_EFI
  CheckFirmware();
  CheckLibraries();
  CheckCrypto();
#endif
  printf("runtime check: %d of %d cases passed\n", g_passed, g_passed + g_failed);
  // Newest first, then the static object's destructor (registered before).
  atexit(ExitHandler1);
  atexit(ExitHandler2);
  return g_failed == 0 ? 0 : 1;
}
