// The directory index's name hash against debugfs's own: both algorithms,
// signed and unsigned bytes, with and without a seed, and names at the
// edges of the portions the hash takes (16 and 32 bytes).  The image tests
// only meet ASCII names and one seed each; the sign of a byte and the
// portion padding show only here.
#include <gtest/gtest.h>

#include <cstring>

#include "ext_test_util.h"
#include "test_util.h"

using namespace fs_test;

namespace {

// The hash debugfs computes, or 0 with a test failure.
uint32_t DebugfsHash(const std::string& name, int version, const std::string& seed) {
  TempDir dir;
  const std::string out = dir / "out";
  const std::string seedArg = seed.empty() ? "" : " -s " + seed;
  if (!Run("debugfs -R 'dx_hash -h " + std::to_string(version) + seedArg + " " + name + "' > '" + out +
           "' 2>/dev/null"))
    return 0;
  const std::string text = ReadFile(out);
  const size_t at = text.find(" is 0x");
  if (at == std::string::npos) {
    ADD_FAILURE() << text;
    return 0;
  }
  return uint32_t(std::stoul(text.substr(at + 4), nullptr, 16));
}

void ParseUuid(const std::string& text, uint8_t out[16]) {
  std::memset(out, 0, 16);
  int n = 0;
  for (size_t i = 0; i + 1 < text.size() && n < 16;) {
    if (text[i] == '-') {
      ++i;
      continue;
    }
    out[n++] = uint8_t(std::stoul(text.substr(i, 2), nullptr, 16));
    i += 2;
  }
}

}  // namespace

TEST(ExtHash, MatchesTheFormatsToolsForEveryVersionSeedAndLength) {
  const std::string names[] = {
      "a",
      "ab",
      "\xc3\xa9t\xc3\xa9\xe2\x82\xacx",               // bytes above 0x7F: signed and unsigned differ
      std::string(15, 'p') + "\xff",                 // a full TEA portion
      std::string(17, 'q'),                          // one byte into the second TEA portion
      std::string(32, 'r'),                          // a full half-MD4 portion
      std::string(33, 's'),
      std::string(100, 't') + "\x80" + std::string(154, 'u'),  // the longest name
  };
  const std::string seeds[] = {"", "8f7ab2c4-2f0b-4bb5-9d1a-27a5c1a1c0de"};
  for (const std::string& seed : seeds) {
    uint8_t seedBytes[16];
    ParseUuid(seed, seedBytes);
    for (int version : {1, 2, 4, 5}) {
      for (const std::string& name : names) {
        const uint32_t mine = extfs::DirEntryHash(reinterpret_cast<const uint8_t*>(name.data()), name.size(),
                                                  uint32_t(version), seedBytes);
        EXPECT_EQ(mine, DebugfsHash(name, version, seed))
            << "version " << version << ", seed '" << seed << "', name of " << name.size() << " bytes";
      }
    }
  }
}
