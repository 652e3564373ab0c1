// Builders for boot entry records and device path nodes in tests, and the
// records read from a real firmware (tests/uefi/data).
#pragma once

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

namespace uefi_test {

using Bytes = std::vector<uint8_t>;

inline void Put(Bytes& out, uint64_t value, size_t n) {
  for (size_t i = 0; i < n; ++i) out.push_back(uint8_t(value >> (8 * i)));
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline Bytes Wide(const std::u16string& s, bool terminate = true) {
  Bytes out;
  for (char16_t c : s) Put(out, c, 2);
  if (terminate) Put(out, 0, 2);
  return out;
}

inline Bytes Ascii(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A node with the given length field (default: header plus data).
inline Bytes Node(uint8_t type, uint8_t subType, const Bytes& data, int length = -1) {
  Bytes out{type, subType};
  Put(out, length < 0 ? data.size() + 4 : size_t(length), 2);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

inline Bytes HardDrive(uint32_t number, uint64_t start, uint64_t size, const Bytes& signature16,
                       uint8_t mbrType, uint8_t signatureType, const Bytes& extra = {}) {
  Bytes data;
  Put(data, number, 4);
  Put(data, start, 8);
  Put(data, size, 8);
  data.insert(data.end(), signature16.begin(), signature16.end());
  data.push_back(mbrType);
  data.push_back(signatureType);
  data.insert(data.end(), extra.begin(), extra.end());
  return Node(4, 1, data);
}

inline Bytes File(const std::u16string& path) { return Node(4, 4, Wide(path)); }
inline Bytes End(uint8_t subType = 0xFF) { return Node(127, subType, {}); }

// A record: attributes, list length (default: the list's size),
// description with terminator, the list, then optional data.
inline Bytes Record(const std::u16string& description, const Bytes& list, const Bytes& optional = {},
                    int listLength = -1, uint32_t attributes = 1) {
  Bytes out;
  Put(out, attributes, 4);
  Put(out, listLength < 0 ? list.size() : size_t(listLength), 2);
  return Cat({out, Wide(description), list, optional});
}

// The GUID 3F2504E0-4F89-11D3-9A0C-0305E82C3301 in the firmware's byte order.
inline Bytes SampleGuidBytes() {
  return {0xE0, 0x04, 0x25, 0x3F, 0x89, 0x4F, 0xD3, 0x11,
          0x9A, 0x0C, 0x03, 0x05, 0xE8, 0x2C, 0x33, 0x01};
}

inline Bytes ReadDataFile(const std::string& name) {
  std::ifstream in(std::string(TEST_SOURCE_DIR) + "/tests/uefi/data/" + name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// The value of an efivarfs file: behind its 4 attribute bytes.
inline Bytes RealRecord(const std::string& name) {
  Bytes all = ReadDataFile(name);
  return all.size() < 4 ? Bytes() : Bytes(all.begin() + 4, all.end());
}

}  // namespace uefi_test
