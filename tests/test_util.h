// Small helpers shared by the unit tests.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
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

// A scratch directory removed with its contents at the end of the scope.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/loader-test-XXXXXX";
    const char* p = mkdtemp(tmpl);
    path_ = p ? p : "";
  }
  ~TempDir() {
    if (!path_.empty()) (void)std::system(("rm -rf '" + path_ + "'").c_str());
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& Path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Writes `contents` to the relative path, making its folders first.
  void Write(const std::string& rel, const std::string& contents) const {
    const std::string full = *this / rel;
    for (size_t p = full.find('/', path_.size() + 1); p != std::string::npos; p = full.find('/', p + 1))
      mkdir(full.substr(0, p).c_str(), 0755);
    std::ofstream(full, std::ios::binary).write(contents.data(), std::streamsize(contents.size()));
  }
  std::string Read(const std::string& rel) const {
    std::ifstream in(*this / rel, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  bool Exists(const std::string& rel) const {
    struct stat st;
    return stat((*this / rel).c_str(), &st) == 0;
  }

 private:
  std::string path_;
};

}  // namespace test_util
