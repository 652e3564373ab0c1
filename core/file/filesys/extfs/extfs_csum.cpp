// The checksums of the ext formats: CRC-32C for the metadata checksums,
// the reflected CRC-16 of the older group-descriptor checksums.
#include <array>

#include "extfs.h"

namespace extfs {

namespace {

template <typename T, T Poly>
constexpr std::array<T, 256> ReflectedTable() {
  std::array<T, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    T c = T(i);
    for (int k = 0; k < 8; ++k) c = (c & 1) ? T((c >> 1) ^ Poly) : T(c >> 1);
    table[i] = c;
  }
  return table;
}

constexpr auto kCrc32cTable = ReflectedTable<uint32_t, 0x82F63B78u>();
constexpr auto kCrc16Table = ReflectedTable<uint16_t, uint16_t(0xA001)>();

}  // namespace

uint32_t Crc32c(uint32_t crc, const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) crc = kCrc32cTable[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
  return crc;
}

uint16_t Crc16(uint16_t crc, const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) crc = uint16_t(kCrc16Table[(crc ^ p[i]) & 0xFF] ^ (crc >> 8));
  return crc;
}

}  // namespace extfs
