// Little-endian numbers in byte buffers, read and written one byte at a
// time so that alignment and host order never matter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Uefi::Le {

inline uint16_t Read16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }

inline uint32_t Read32(const uint8_t* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

inline uint64_t Read64(const uint8_t* p) { return Read32(p) | (uint64_t(Read32(p + 4)) << 32); }

inline void Append(std::vector<uint8_t>& out, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) out.push_back(uint8_t(value >> (8 * i)));
}

}  // namespace Uefi::Le
