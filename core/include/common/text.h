// Text helpers: UTF-8 <-> UTF-16 and the GUID text form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Common {

// Strict decoding: false on any ill-formed sequence (bad continuation,
// overlong forms, surrogates, code points above 0x10FFFF); `out` then holds
// what was decoded before the fault.  Code points above 0xFFFF become
// surrogate pairs.
bool Utf8ToUtf16Strict(std::string_view in, std::u16string& out);

// Lenient decoding: an ill-formed sequence becomes U+FFFD, and decoding
// stops at a zero byte.
std::u16string Utf8ToUtf16(std::string_view in);

// One strictly well-formed sequence at the front of `in`, by the rules of
// Utf8ToUtf16Strict: its length in bytes, or 0 when it is ill-formed, cut
// short or `in` is empty (`cp` is then unspecified).  For scanners that
// decode as they go and need to stop at the exact byte of a fault.
size_t DecodeUtf8Strict(std::string_view in, uint32_t& cp);

// Appends one code point (at most 0x10FFFF) in UTF-16.
void AppendUtf16(std::u16string& out, uint32_t cp);

// Encoding: an unpaired surrogate becomes U+FFFD.
std::string Utf16ToUtf8(std::u16string_view in);

// The firmware's GUID layout: three little-endian numbers, then 8 bytes.
struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];

  friend bool operator==(const GUID&, const GUID&) = default;
  bool IsZero() const {
    return Data1 == 0 && Data2 == 0 && Data3 == 0 && Data4[0] == 0 && Data4[1] == 0 &&
           Data4[2] == 0 && Data4[3] == 0 && Data4[4] == 0 && Data4[5] == 0 && Data4[6] == 0 &&
           Data4[7] == 0;
  }
};
static_assert(sizeof(GUID) == 16);

// "%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X"
std::u16string GuidToText(const GUID& guid);
std::string GuidToNarrowText(const GUID& guid);
// Reads the same form (hex digits of either case); false on a null pointer
// or a text that does not give all eleven fields.
bool TextToGuid(const char16_t* text, GUID& guid);
bool TextToGuid(const char* text, GUID& guid);

}  // namespace Common
