#include "common/text.h"

#include <cstdio>

namespace Common {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

void PutCodePoint(std::u16string& out, uint32_t cp) {
  if (cp >= 0x10000) {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(cp));
  }
}

// Decodes one sequence at `in[i]`.  Returns its length, or 0 if it is
// ill-formed (the code point is then undefined).
size_t DecodeOne(std::string_view in, size_t i, uint32_t& cp) {
  const auto b = [&](size_t k) { return static_cast<uint8_t>(in[i + k]); };
  const uint8_t lead = b(0);
  if (lead < 0x80) {
    cp = lead;
    return 1;
  }
  size_t len;
  uint8_t lo = 0x80, hi = 0xBF;  // range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    len = 2;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    len = 3;
    cp = lead & 0x0F;
    if (lead == 0xE0) lo = 0xA0;
    if (lead == 0xED) hi = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    len = 4;
    cp = lead & 0x07;
    if (lead == 0xF0) lo = 0x90;
    if (lead == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (in.size() - i < len) return 0;
  if (b(1) < lo || b(1) > hi) return 0;
  for (size_t k = 1; k < len; ++k) {
    if ((b(k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(k) & 0x3F);
  }
  return len;
}

}  // namespace

size_t DecodeUtf8Strict(std::string_view in, uint32_t& cp) {
  if (in.empty()) return 0;
  return DecodeOne(in, 0, cp);
}

void AppendUtf16(std::u16string& out, uint32_t cp) { PutCodePoint(out, cp); }

bool Utf8ToUtf16Strict(std::string_view in, std::u16string& out) {
  out.clear();
  out.reserve(in.size());
  for (size_t i = 0; i < in.size();) {
    uint32_t cp;
    size_t len = DecodeOne(in, i, cp);
    if (len == 0) return false;
    PutCodePoint(out, cp);
    i += len;
  }
  return true;
}

std::u16string Utf8ToUtf16(std::string_view in) {
  std::u16string out;
  out.reserve(in.size());
  for (size_t i = 0; i < in.size();) {
    if (in[i] == 0) break;
    uint32_t cp;
    size_t len = DecodeOne(in, i, cp);
    if (len == 0) {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    PutCodePoint(out, cp);
    i += len;
  }
  return out;
}

std::string Utf16ToUtf8(std::u16string_view in) {
  std::string out;
  out.reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    uint32_t c = in[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < in.size() && in[i + 1] >= 0xDC00 &&
        in[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;
    }
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return out;
}

std::string GuidToNarrowText(const GUID& g) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X",
                static_cast<unsigned long>(g.Data1), static_cast<unsigned short>(g.Data2),
                static_cast<unsigned short>(g.Data3), g.Data4[0], g.Data4[1], g.Data4[2],
                g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return buf;
}

std::u16string GuidToText(const GUID& g) {
  std::string n = GuidToNarrowText(g);
  return std::u16string(n.begin(), n.end());
}

namespace {

template <typename Ch>
bool ParseGuid(const Ch* text, GUID& guid) {
  if (!text) return false;
  // Field widths of the text form; a dash stands between the first five
  // groups (after fields 0, 1, 2 and 4 of the eleven).
  static const int kDigits[11] = {8, 4, 4, 2, 2, 2, 2, 2, 2, 2, 2};
  uint64_t fields[11];
  const Ch* p = text;
  for (int f = 0; f < 11; ++f) {
    uint64_t v = 0;
    for (int d = 0; d < kDigits[f]; ++d, ++p) {
      const uint32_t c = static_cast<uint32_t>(*p);
      uint32_t n;
      if (c >= '0' && c <= '9') n = c - '0';
      else if (c >= 'a' && c <= 'f') n = c - 'a' + 10;
      else if (c >= 'A' && c <= 'F') n = c - 'A' + 10;
      else return false;
      v = (v << 4) | n;
    }
    fields[f] = v;
    if (f == 0 || f == 1 || f == 2 || f == 4) {
      if (*p != '-') return false;
      ++p;
    }
  }
  guid.Data1 = static_cast<uint32_t>(fields[0]);
  guid.Data2 = static_cast<uint16_t>(fields[1]);
  guid.Data3 = static_cast<uint16_t>(fields[2]);
  for (int i = 0; i < 8; ++i) guid.Data4[i] = static_cast<uint8_t>(fields[3 + i]);
  return true;
}

}  // namespace

bool TextToGuid(const char16_t* text, GUID& guid) { return ParseGuid(text, guid); }
bool TextToGuid(const char* text, GUID& guid) { return ParseGuid(text, guid); }

}  // namespace Common
