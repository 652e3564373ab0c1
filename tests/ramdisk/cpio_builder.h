// Hand-made cpio "new ASCII" bytes for the corruption and edge cases; the
// ordinary cases use archives made by the real cpio tool.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

namespace test_util {

struct CpioEntry {
  CpioEntry(std::string n, uint32_t m = 0100644, std::string d = "")
      : name(std::move(n)), mode(m), data(std::move(d)) {}
  std::string name;
  uint32_t mode = 0100644;
  std::string data;
  uint32_t ino = 0;
  uint32_t nlink = 1;
  uint32_t rdevmajor = 0, rdevminor = 0;
  // When set, replaces the namesize or filesize written into the header.
  int64_t namesize = -1;
  int64_t filesize = -1;
  bool lowerCase = false;
};

inline std::string Hex8(uint32_t v, bool lower = false) {
  char buf[9];
  std::snprintf(buf, sizeof buf, lower ? "%08x" : "%08X", v);
  return buf;
}

// Header, name with its 0 and padding, data and padding.
inline std::string CpioBytes(const CpioEntry& e) {
  const uint32_t namesize = e.namesize >= 0 ? uint32_t(e.namesize) : uint32_t(e.name.size() + 1);
  const uint32_t filesize = e.filesize >= 0 ? uint32_t(e.filesize) : uint32_t(e.data.size());
  std::string out = "070701";
  for (uint32_t v : {e.ino, e.mode, 0u, 0u, e.nlink, 0u, filesize, 0u, 0u, e.rdevmajor, e.rdevminor,
                     namesize, 0u})
    out += Hex8(v, e.lowerCase);
  out += e.name;
  out.push_back('\0');
  while (out.size() % 4) out.push_back('\0');
  out += e.data;
  while (out.size() % 4) out.push_back('\0');
  return out;
}

inline std::string CpioTrailer() { return CpioBytes({"TRAILER!!!", 0}); }

}  // namespace test_util
