// The cpio "new ASCII" format as this system reads and writes it: names,
// patterns, type bits, and the header writer.
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "linex/ramdisk.h"
#include "ramdisk_impl.h"

using namespace Common::Codes;

namespace LinuxEx {

namespace {

constexpr uint32_t kTypeBits[] = {0x8000, 0x4000, 0xa000, 0xc000, 0x1000, 0x2000, 0x6000};

void PutHex8(char* out, uint32_t value) {
  static const char kDigits[] = "0123456789ABCDEF";
  for (int i = 7; i >= 0; --i) {
    out[i] = kDigits[value & 0xf];
    value >>= 4;
  }
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string NormalizeRamdiskName(std::string_view name) {
  std::vector<std::string_view> parts;
  size_t at = 0;
  while (at <= name.size()) {
    size_t end = name.find('/', at);
    if (end == std::string_view::npos) end = name.size();
    const std::string_view part = name.substr(at, end - at);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    at = end + 1;
  }
  std::string out;
  for (const auto& part : parts) {
    if (!out.empty()) out.push_back('/');
    out.append(part);
  }
  return out;
}

bool MatchPattern(std::string_view name, std::string_view pattern) {
  if (pattern.empty()) return true;
  size_t star = pattern.find('*');
  if (star == std::string_view::npos) return name == pattern;
  // First part: at the start of the name.
  const std::string_view first = pattern.substr(0, star);
  if (name.substr(0, first.size()) != first) return false;
  size_t position = first.size();
  // Middle parts: each searched forward from where the previous one ended.
  size_t from = star + 1;
  for (size_t next; (next = pattern.find('*', from)) != std::string_view::npos; from = next + 1) {
    const std::string_view middle = pattern.substr(from, next - from);
    if (middle.empty()) continue;
    const size_t found = position <= name.size() ? name.find(middle, position) : std::string_view::npos;
    if (found == std::string_view::npos) return false;
    position = found + middle.size();
  }
  // Last part: it must end the name, wherever the others ended.
  const std::string_view last = pattern.substr(from);
  return name.size() >= last.size() && name.substr(name.size() - last.size()) == last;
}

uint32_t ModeTypeBits(int type) {
  return type >= 0 && type < kUnknownNode ? kTypeBits[type] : 0;
}

int NodeTypeOfMode(uint32_t mode) {
  const uint32_t bits = mode & 0xf000;
  for (int type = 0; type < kUnknownNode; ++type)
    if (kTypeBits[type] == bits) return type;
  return kUnknownNode;
}

const RamdiskNode& TrailerNode() {
  static const RamdiskNode trailer = [] {
    RamdiskNode node;
    node.name = kTrailerName;
    node.type = kRegularFile;
    return node;
  }();
  return trailer;
}

o_file* operator<<(o_file* output, const RamdiskNode& node) {
  if (output == nullptr) THROW_ERROR(WriteError);
  const uint64_t length = node.name.size();
  const uint64_t total = (length + 114) & ~uint64_t(3);
  std::unique_ptr<char[]> header(new (std::nothrow) char[total]);
  if (!header) THROW_ERROR(NotEnoughMemory);
  std::memset(header.get(), 0, total);
  std::memcpy(header.get(), kCpioMagic, 6);
  const uint32_t fields[13] = {node.ino,       node.mode | ModeTypeBits(node.type),
                               node.uid,       node.gid,
                               node.nlink,     node.mtime,
                               node.filesize,  0,
                               0,              node.rdevmajor,
                               node.rdevminor, static_cast<uint32_t>(length + 1),
                               0};
  for (int i = 0; i < 13; ++i) PutHex8(header.get() + 6 + 8 * i, fields[i]);
  std::memcpy(header.get() + kCpioHeaderSize, node.name.data(), length);
  output->Write(header.get(), total);
  if (output->HasError()) throw output->TakeError();
  return output;
}

bool ParseCpioNumbers(const unsigned char* header, CpioHeader& out) {
  for (int field = 0; field < 13; ++field) {
    uint32_t value = 0;
    for (int i = 0; i < 8; ++i) {
      const int digit = HexDigit(static_cast<char>(header[6 + 8 * field + i]));
      if (digit < 0) return false;
      value = value << 4 | uint32_t(digit);
    }
    out.fields[field] = value;
  }
  return true;
}

}  // namespace LinuxEx
