// Small helpers shared by the unit tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/error.h"

namespace test_util {

// UTF-16 to UTF-8, for readable assertion messages and substring checks.
inline std::string Narrow(const std::u16string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    uint32_t c = s[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      out.push_back(char(c));
    } else if (c < 0x800) {
      out.push_back(char(0xC0 | (c >> 6)));
      out.push_back(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(char(0xE0 | (c >> 12)));
      out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(char(0x80 | (c & 0x3F)));
    } else {
      out.push_back(char(0xF0 | (c >> 18)));
      out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(char(0x80 | (c & 0x3F)));
    }
  }
  return out;
}

// The code of the Common::Error that `fn` throws, or 0 when it throws none.
inline uint32_t ThrownCode(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const Common::Error& e) {
    return e.Code();
  }
  return 0;
}

inline std::vector<uint8_t> Bytes(const std::string& s) { return {s.begin(), s.end()}; }

}  // namespace test_util
