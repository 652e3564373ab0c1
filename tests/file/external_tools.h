// Runs the real compression and archive tools from the unit tests, so that
// the readers are checked against what those tools make and the writers
// against what those tools accept.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "test_util.h"

namespace test_util {

inline void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary).write(data.data(), std::streamsize(data.size()));
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs `command` under sh with `input` on its standard input; gives its
// standard output and sets `status` to its exit status.
inline std::string RunFilter(const std::string& command, const std::string& input, int* status = nullptr) {
  TempDir dir;
  WriteFile(dir / "in", input);
  const std::string cmd = "(" + command + ") <'" + (dir / "in") + "' >'" + (dir / "out") + "' 2>/dev/null";
  const int rc = std::system(cmd.c_str());
  if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return ReadFile(dir / "out");
}

// Data that compresses like real files: runs of text with random stretches.
inline std::string SampleData(size_t size, uint32_t seed = 1) {
  std::string out;
  out.reserve(size);
  uint32_t x = seed * 2654435761u + 1;
  auto next = [&] {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
  };
  static const char* kWords[] = {"kernel ", "module ", "initramfs ", "console=ttyS0 ", "root=",
                                 "/usr/lib/", "firmware ", "\n", "0x1f8b ", "TRAILER "};
  while (out.size() < size) {
    if (next() % 4 == 0) {
      for (int i = 0; i < 16 && out.size() < size; ++i) out.push_back(char(next()));
    } else {
      out += kWords[next() % 10];
    }
  }
  out.resize(size);
  return out;
}

}  // namespace test_util
