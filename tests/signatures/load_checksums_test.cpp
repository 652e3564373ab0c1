// Signed digest lists: which lists the loader takes, and the exact refusal
// of everything else.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common/error_codes.h"
#include "efi/signatures.h"
#include "signatures/signing.h"
#include "test_util.h"

namespace {

using namespace EfiLoader;
using namespace test_util;
using Common::Error;

constexpr uint32_t kInvalidSignature = 0x1480011;
constexpr uint32_t kDataIncorrect = 0x1480014;
constexpr uint32_t kIncorrectKey = 0x1480015;

const char* kDigestA = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const char* kDigestB = "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855";

std::vector<uint8_t> Unhex(const std::string& s) {
  std::vector<uint8_t> out;
  EXPECT_TRUE(ConvertToBinary(s, out).IsSuccess()) << s;
  return out;
}

struct KeyCase {
  const char* name;      // dev key file
  const uint8_t* built;  // the embedded key it must match
  size_t builtLength;
  const EVP_MD* (*md)();
};

const KeyCase kKeys[] = {
    {"first", PublicKeyFirst, sizeof PublicKeyFirst, EVP_sha256},
    {"second", PublicKeySecond, sizeof PublicKeySecond, EVP_sha256},
    {"dsa", PublicKeyDsa, sizeof PublicKeyDsa, EVP_sha1},
};

class SignatureLists : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const KeyCase& k : kKeys) keys().push_back(LoadPrivateKey(DevKeyPath(k.name)));
  }
  static void TearDownTestSuite() { keys().clear(); }
  static std::vector<Pkey>& keys() {
    static std::vector<Pkey> k;
    return k;
  }

  void SetUp() override {
    for (size_t i = 0; i < 3; ++i) {
      const auto der = PublicDer(keys()[i].get());
      if (der != std::vector<uint8_t>(kKeys[i].built, kKeys[i].built + kKeys[i].builtLength))
        GTEST_SKIP() << "built with other keys than the development set";
    }
  }

  static std::string List(size_t key, const std::string& body) {
    return SignedList(body, keys()[key].get(), kKeys[key].md());
  }
};

// An error of `code` raised in `function`, with no cause.
void ExpectError(const Error& e, uint32_t code, const char* function) {
  EXPECT_EQ(e.Code(), code) << Narrow(Common::ErrorText(e));
  if (e.IsError()) {
    EXPECT_STREQ(e.Function(), function);
    EXPECT_FALSE(e.Cause().IsError());
  }
}

TEST_F(SignatureLists, EachBuiltInKeyIsAcceptedInItsTurn) {
  // The second and third keys are reached only after the earlier ones have
  // refused the signature.
  const std::string body = std::string(kDigestA) + "\r\n  " + kDigestB + "\n\n";
  for (size_t k = 0; k < 3; ++k) {
    SCOPED_TRACE(kKeys[k].name);
    DigestList digests{{1, 2, 3}};
    ASSERT_TRUE(LoadChecksums(List(k, body), digests).IsSuccess());
    ASSERT_EQ(digests.size(), 3u);
    EXPECT_EQ(digests[0], (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(digests[1], Unhex(kDigestA));
    EXPECT_EQ(digests[2], Unhex(kDigestB));
  }
}

TEST_F(SignatureLists, SignatureInUpperCaseAndTextBehindItAreAccepted) {
  const std::string body = std::string(kDigestA) + " ";
  const std::string text = body + "BeginSignature: " +
                           Hex(Sign(keys()[0].get(), body, EVP_sha256()), true) +
                           "\nanything zz BeginSignature: here\n";
  DigestList digests;
  ASSERT_TRUE(LoadChecksums(text, digests).IsSuccess());
  EXPECT_EQ(digests, DigestList{Unhex(kDigestA)});
}

TEST_F(SignatureLists, MarkerAsFirstTokenGivesAnEmptyList) {
  DigestList digests;
  ASSERT_TRUE(LoadChecksums(List(1, ""), digests).IsSuccess());
  EXPECT_TRUE(digests.empty());
}

TEST_F(SignatureLists, AlteredOrForeignListsAreRefusedAndChangeNothing) {
  const std::string body = std::string(kDigestA) + "\n" + kDigestB + "\n";
  const auto fresh = NewRsaKey();
  struct Case {
    const char* what;
    std::function<std::string()> make;
  };
  const std::vector<Case> cases = {
      {"a digest digit changed",
       [&] {
         std::string t = List(0, body);
         t[5] = t[5] == '0' ? '1' : '0';
         return t;
       }},
      {"a digest added after signing",
       [&] { return std::string(kDigestB) + "\n" + List(2, body); }},
      {"line feeds turned into CR LF",
       [&] {
         std::string t = List(1, body), out;
         for (char c : t) {
           if (c == '\n') out += '\r';
           out += c;
         }
         return out;
       }},
      {"a signature digit changed",
       [&] {
         std::string t = List(0, body);
         const size_t p = t.find("BeginSignature:") + 20;
         t[p] = t[p] == 'a' ? 'b' : 'a';
         return t;
       }},
      {"the signature's last digit dropped",
       [&] {
         std::string t = List(2, body);
         t.erase(t.size() - 2, 1);
         return t;
       }},
      {"the signature cut in half",
       [&] {
         std::string t = List(0, body);
         const size_t p = t.find("BeginSignature:") + 16;
         return t.substr(0, p + (t.size() - p) / 2);
       }},
      {"nothing behind the marker", [&] { return body + "BeginSignature:\r\n"; }},
      {"a key not built in", [&] { return SignedList(body, fresh.get(), EVP_sha256()); }},
      {"RSA over SHA-1", [&] { return SignedList(body, keys()[0].get(), EVP_sha1()); }},
      {"DSA over SHA-256", [&] { return SignedList(body, keys()[2].get(), EVP_sha256()); }},
      {"a signature twice as long",
       [&] {
         const std::string sig = Hex(Sign(keys()[1].get(), body, EVP_sha256()));
         return body + "BeginSignature: " + sig + sig;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    DigestList digests{{9}};
    ExpectError(LoadChecksums(c.make(), digests), kInvalidSignature, "LoadChecksums");
    EXPECT_EQ(digests, DigestList{{9}});
  }
}

TEST_F(SignatureLists, MalformedListsAreRefusedAsIncorrectData) {
  struct Case {
    const char* what;
    std::string text;
    const char* function;
  };
  const std::string good = List(0, std::string(kDigestA) + "\n");
  const std::vector<Case> cases = {
      {"empty file", "", "ParseSignaturesFile"},
      {"digests only", std::string(kDigestA) + "\n" + kDigestB + "\n", "ParseSignaturesFile"},
      {"marker without its colon", std::string(kDigestA) + "\nBeginSignature 00\n",
       "ParseSignaturesFile"},
      {"marker in other case", std::string(kDigestA) + "\nbeginsignature: 00\n",
       "ParseSignaturesFile"},
      {"list cut inside the marker", good.substr(0, good.find("BeginSignature:") + 7),
       "ParseSignaturesFile"},
      {"bad digit in a digest", "0011zz\nBeginSignature: 00\n", "ConvertToBinary"},
      {"digest with a 0x prefix", "0x11\nBeginSignature: 00\n", "ConvertToBinary"},
      {"signed digit in a digest", "+1ff\nBeginSignature: 00\n", "ConvertToBinary"},
      {"tab inside a digest", "00\t1\nBeginSignature: 00\n", "ConvertToBinary"},
      {"bad digit in the signature", std::string(kDigestA) + "\nBeginSignature: 0g\n",
       "ConvertToBinary"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    DigestList digests;
    ExpectError(LoadChecksums(c.text, digests), kDataIncorrect, c.function);
    EXPECT_TRUE(digests.empty());
  }
}

TEST_F(SignatureLists, MarkerInsideALongerTokenEndsTheSignedDataButNotTheDigests) {
  // The signed part stops at the first marker text, wherever it stands; the
  // digest scan only stops at a whole marker token and so trips over it.
  const std::string body = std::string(kDigestA) + "\nab";
  const std::string text = body + "BeginSignature: " +
                           Hex(Sign(keys()[0].get(), body, EVP_sha256())) + "\n";
  DigestList digests;
  ExpectError(LoadChecksums(text, digests), kDataIncorrect, "ConvertToBinary");

  SignaturesFile parsed;
  const std::string tail = std::string(kDigestA) + " BeginSignature:00 BeginSignature: 11";
  ExpectError(ParseSignaturesFile(tail, parsed), kDataIncorrect, "ConvertToBinary");
}

TEST(ParseSignaturesFile, SplitsSignedTextSignatureAndDigests) {
  const std::string text = "aa  0B\r\nc\nBeginSignature: 0102z\nBeginSignature: ff";
  SignaturesFile parsed;
  ASSERT_TRUE(ParseSignaturesFile(text, parsed).IsSuccess());
  EXPECT_EQ(parsed.signedData, "aa  0B\r\nc\n");
  EXPECT_EQ(parsed.signature, (std::vector<uint8_t>{1, 2}));  // the odd "z" is never read
  // A one-digit token is an empty digest: listed, but it matches nothing.
  EXPECT_EQ(ReadDigests(parsed), (DigestList{{0xAA}, {0x0B}, {}}));

  ASSERT_TRUE(ParseSignaturesFile("BeginSignature:\n", parsed).IsSuccess());
  EXPECT_TRUE(parsed.signature.empty());
  EXPECT_TRUE(ReadDigests(parsed).empty());
}

TEST_F(SignatureLists, HugeListsAreReadWhole) {
  std::string body;
  const size_t count = 100000;
  body.reserve(count * 65);
  for (size_t i = 0; i < count; ++i) {
    char line[66];
    std::snprintf(line, sizeof line, "%056zx%08zx\n", i, count - i);
    body += line;
  }
  DigestList digests;
  ASSERT_TRUE(LoadChecksums(List(0, body), digests).IsSuccess());
  ASSERT_EQ(digests.size(), count);
  EXPECT_EQ(digests[count - 1][31], 1);
  EXPECT_EQ(digests[count - 1][27], (count - 1) & 0xFF);

  DigestList untouched;
  std::string altered = List(2, body);
  altered[0] = altered[0] == '0' ? '1' : '0';
  ExpectError(LoadChecksums(altered, untouched), kInvalidSignature, "LoadChecksums");
  EXPECT_TRUE(untouched.empty());
}

TEST(ConvertToBinary, ReadsPairsOfDigitsAndDropsAnOddLastOne) {
  struct Case {
    const char* token;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {"", {}},          {"7", {}},           {"0aF", {0x0A}},
      {"A0ff", {0xA0, 0xFF}}, {"09Bc7", {0x09, 0xBC}}, {"12g", {0x12}},  // 'g' is the odd digit, never read
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> out{0x55};
    ASSERT_TRUE(ConvertToBinary(c.token, out).IsSuccess()) << c.token;
    EXPECT_EQ(out, c.bytes) << c.token;
  }
  for (const char* bad : {"g0", "0G", " 1", "-1", "0x", "1:", "\xff" "0", "0/", "@0"}) {
    std::vector<uint8_t> out;
    Error e = ConvertToBinary(bad, out);
    EXPECT_EQ(e.Code(), kDataIncorrect) << bad;
    EXPECT_EQ(Narrow(e.Message()), "Data in the signature file is incorrect.");
  }
}

TEST_F(SignatureLists, KeysThatCannotBeDecodedAreReportedAsSuch) {
  const std::string data = "payload";
  const auto rsaSig = Sign(keys()[0].get(), data, EVP_sha256());
  const auto dsaSig = Sign(keys()[2].get(), data, EVP_sha1());
  ASSERT_TRUE(VerifySignature(KeyKind::Rsa, PublicKeyFirst, 294, data, rsaSig).IsSuccess());
  ASSERT_TRUE(VerifySignature(KeyKind::Dsa, PublicKeyDsa, 442, data, dsaSig).IsSuccess());

  const uint8_t garbage[16] = {0x30, 0x0E, 1, 2, 3};
  ExpectError(VerifySignature(KeyKind::Rsa, garbage, sizeof garbage, data, rsaSig), kIncorrectKey,
              "VerifySignature");
  ExpectError(VerifySignature(KeyKind::Rsa, PublicKeyFirst, 200, data, rsaSig), kIncorrectKey,
              "VerifySignature");
  ExpectError(VerifySignature(KeyKind::Rsa, PublicKeyDsa, 442, data, rsaSig), kIncorrectKey,
              "VerifySignature");
  ExpectError(VerifySignature(KeyKind::Dsa, PublicKeySecond, 294, data, dsaSig), kIncorrectKey,
              "VerifySignature");
  ExpectError(VerifySignature(KeyKind::Rsa, PublicKeySecond, 294, data, rsaSig),
              kInvalidSignature, "VerifySignature");
  ExpectError(VerifySignature(KeyKind::Dsa, PublicKeyDsa, 442, "other", dsaSig),
              kInvalidSignature, "VerifySignature");
  ExpectError(VerifySignature(KeyKind::Dsa, PublicKeyDsa, 442, data, {}), kInvalidSignature,
              "VerifySignature");
}

}  // namespace
