// The printf engine and the functions that format into memory.
//
// Conversions: d i u o x X c s p % and, for the loader's wide texts, ls and
// lc (16-bit units, written out as UTF-8).  Flags - 0 + space #, width and
// precision (both also as *), length modifiers hh h l ll j z t L.
// Floating point is printed in plain decimal notation only (f F e E g G a A
// all give it), which is all the loader ever shows.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "runtime.h"

namespace {

using Uefi::Runtime::FormatSink;

class Writer {
 public:
  Writer(FormatSink sink, void* context) : sink_(sink), context_(context) {}

  void Put(const char* text, size_t length) {
    if (length == 0) return;
    sink_(context_, text, length);
    total_ += length;
  }
  void Repeat(char c, size_t count) {
    char chunk[32];
    memset(chunk, c, sizeof chunk);
    while (count > 0) {
      size_t n = count < sizeof chunk ? count : sizeof chunk;
      Put(chunk, n);
      count -= n;
    }
  }
  size_t Total() const { return total_; }

 private:
  FormatSink sink_;
  void* context_;
  size_t total_ = 0;
};

struct Spec {
  bool left = false;
  bool zero = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  int width = 0;
  int precision = -1;  // none
};

// Pads `body` (with `prefix` such as "-" or "0x" before it) to the width.
void Emit(Writer& out, const Spec& spec, const char* prefix, size_t prefixLength, const char* body,
          size_t bodyLength, size_t zeros = 0) {
  size_t length = prefixLength + zeros + bodyLength;
  size_t pad = spec.width > 0 && static_cast<size_t>(spec.width) > length ? spec.width - length : 0;
  if (!spec.left && !spec.zero) out.Repeat(' ', pad);
  out.Put(prefix, prefixLength);
  if (!spec.left && spec.zero) out.Repeat('0', pad);
  out.Repeat('0', zeros);
  out.Put(body, bodyLength);
  if (spec.left) out.Repeat(' ', pad);
}

void EmitInteger(Writer& out, Spec spec, uint64_t magnitude, bool negative, unsigned base, bool upper,
                 bool isPointer = false) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  // As in C, "#x" marks only values that are not zero; "%p" marks all.
  bool hexPrefix = base == 16 && (isPointer || (spec.alternate && magnitude != 0));
  char buffer[24];
  size_t n = 0;
  // "%.0d" of 0 prints nothing, as in C.
  if (magnitude != 0 || spec.precision != 0) {
    do {
      buffer[sizeof buffer - ++n] = digits[magnitude % base];
      magnitude /= base;
    } while (magnitude != 0);
  }
  const char* body = buffer + sizeof buffer - n;

  char prefix[3];
  size_t prefixLength = 0;
  if (negative)
    prefix[prefixLength++] = '-';
  else if (spec.plus)
    prefix[prefixLength++] = '+';
  else if (spec.space)
    prefix[prefixLength++] = ' ';
  if (hexPrefix) {
    prefix[prefixLength++] = '0';
    prefix[prefixLength++] = upper ? 'X' : 'x';
  }
  size_t zeros = 0;
  if (spec.alternate && base == 8 && (n == 0 || body[0] != '0')) zeros = 1;
  if (spec.precision >= 0) {
    // An explicit precision turns off the '0' flag.
    spec.zero = false;
    if (static_cast<size_t>(spec.precision) > n) zeros = spec.precision - n;
  }
  Emit(out, spec, prefix, prefixLength, body, n, zeros);
}

// Appends the UTF-8 form of one code point; returns its length.
size_t EncodeUtf8(char32_t c, char* out) {
  if (c < 0x80) {
    out[0] = static_cast<char>(c);
    return 1;
  }
  if (c < 0x800) {
    out[0] = static_cast<char>(0xC0 | (c >> 6));
    out[1] = static_cast<char>(0x80 | (c & 0x3F));
    return 2;
  }
  if (c < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (c >> 12));
    out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (c & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (c >> 18));
  out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (c & 0x3F));
  return 4;
}

// A wide text: the precision and width count characters, not bytes.
void EmitWide(Writer& out, const Spec& spec, const char16_t* text) {
  if (!text) text = u"(null)";
  size_t count = 0;
  while (text[count] && (spec.precision < 0 || count < static_cast<size_t>(spec.precision))) ++count;
  size_t pad = spec.width > 0 && static_cast<size_t>(spec.width) > count ? spec.width - count : 0;
  if (!spec.left) out.Repeat(' ', pad);
  for (size_t i = 0; i < count; ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < count && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;
    }
    char bytes[4];
    out.Put(bytes, EncodeUtf8(c, bytes));
  }
  if (spec.left) out.Repeat(' ', pad);
}

void EmitFloat(Writer& out, Spec spec, double value) {
  char prefix[1];
  size_t prefixLength = 0;
  if (value < 0 || (value == 0 && __builtin_signbit(value))) {
    prefix[prefixLength++] = '-';
    value = -value;
  } else if (spec.plus) {
    prefix[prefixLength++] = '+';
  } else if (spec.space) {
    prefix[prefixLength++] = ' ';
  }
  if (__builtin_isnan(value) || __builtin_isinf(value)) {
    spec.zero = false;
    Emit(out, spec, prefix, prefixLength, __builtin_isnan(value) ? "nan" : "inf", 3);
    return;
  }
  int precision = spec.precision < 0 ? 6 : spec.precision > 17 ? 17 : spec.precision;
  double scale = 1;
  for (int i = 0; i < precision; ++i) scale *= 10;
  // Digits beyond 19 are shown as zeros: this engine only has 64-bit
  // integers, and nothing shown by the loader comes near.
  int extraZeros = 0;
  while (value >= 1e19) {
    value /= 10;
    ++extraZeros;
  }
  uint64_t whole = static_cast<uint64_t>(value);
  double fraction = value - static_cast<double>(whole);
  uint64_t decimals = static_cast<uint64_t>(fraction * scale + 0.5);
  if (static_cast<double>(decimals) >= scale) {
    decimals = 0;
    ++whole;
  }
  char buffer[72];
  size_t n = 0;
  char* end = buffer + sizeof buffer;
  for (int i = 0; i < precision; ++i) {
    *--end = static_cast<char>('0' + decimals % 10);
    decimals /= 10;
    ++n;
  }
  if (precision > 0 || spec.alternate) {
    *--end = '.';
    ++n;
  }
  for (int i = 0; i < extraZeros; ++i, ++n) *--end = '0';
  do {
    *--end = static_cast<char>('0' + whole % 10);
    whole /= 10;
    ++n;
  } while (whole != 0);
  Emit(out, spec, prefix, prefixLength, end, n);
}

}  // namespace

namespace Uefi::Runtime {

int Format(FormatSink sink, void* context, const char* format, va_list args) {
  Writer out(sink, context);
  const char* p = format;
  while (*p) {
    if (*p != '%') {
      const char* start = p;
      while (*p && *p != '%') ++p;
      out.Put(start, p - start);
      continue;
    }
    const char* directive = p++;
    Spec spec;
    for (;; ++p) {
      if (*p == '-')
        spec.left = true;
      else if (*p == '0')
        spec.zero = true;
      else if (*p == '+')
        spec.plus = true;
      else if (*p == ' ')
        spec.space = true;
      else if (*p == '#')
        spec.alternate = true;
      else
        break;
    }
    if (*p == '*') {
      spec.width = va_arg(args, int);
      if (spec.width < 0) {
        spec.left = true;
        spec.width = -spec.width;
      }
      ++p;
    } else {
      while (*p >= '0' && *p <= '9') spec.width = spec.width * 10 + (*p++ - '0');
    }
    if (*p == '.') {
      ++p;
      spec.precision = 0;
      if (*p == '*') {
        spec.precision = va_arg(args, int);
        ++p;
      } else {
        while (*p >= '0' && *p <= '9') spec.precision = spec.precision * 10 + (*p++ - '0');
      }
    }
    if (spec.left) spec.zero = false;

    // Length: the size in bytes of the integer argument (0: int).
    int size = 0;
    bool wide = false;
    if (p[0] == 'h' && p[1] == 'h') {
      size = 1;
      p += 2;
    } else if (*p == 'h') {
      size = 2;
      ++p;
    } else if (p[0] == 'l' && p[1] == 'l') {
      size = 8;
      p += 2;
    } else if (*p == 'l') {
      size = sizeof(long);
      wide = true;
      ++p;
    } else if (*p == 'j' || *p == 'z' || *p == 't' || *p == 'q') {
      size = 8;
      ++p;
    } else if (*p == 'L') {
      ++p;
    }

    char conversion = *p;
    if (conversion) ++p;
    switch (conversion) {
      case 'd':
      case 'i': {
        int64_t value = size == 8 ? va_arg(args, int64_t) : va_arg(args, int);
        if (size == 1) value = static_cast<signed char>(value);
        if (size == 2) value = static_cast<short>(value);
        uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        EmitInteger(out, spec, magnitude, value < 0, 10, false);
        break;
      }
      case 'u':
      case 'o':
      case 'x':
      case 'X': {
        uint64_t value = size == 8 ? va_arg(args, uint64_t) : va_arg(args, unsigned);
        if (size == 1) value = static_cast<unsigned char>(value);
        if (size == 2) value = static_cast<unsigned short>(value);
        spec.plus = spec.space = false;
        unsigned base = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
        EmitInteger(out, spec, value, false, base, conversion == 'X');
        break;
      }
      case 'p': {
        auto value = reinterpret_cast<uintptr_t>(va_arg(args, void*));
        spec.plus = spec.space = false;
        EmitInteger(out, spec, value, false, 16, false, true);
        break;
      }
      case 'c': {
        if (wide) {
          char16_t text[2] = {static_cast<char16_t>(va_arg(args, unsigned)), 0};
          spec.precision = -1;
          EmitWide(out, spec, text);
        } else {
          char c = static_cast<char>(va_arg(args, int));
          spec.zero = false;
          Emit(out, spec, "", 0, &c, 1);
        }
        break;
      }
      case 's': {
        if (wide) {
          EmitWide(out, spec, va_arg(args, const char16_t*));
        } else {
          const char* text = va_arg(args, const char*);
          if (!text) text = "(null)";
          size_t length = spec.precision >= 0 ? strnlen(text, spec.precision) : strlen(text);
          spec.zero = false;
          Emit(out, spec, "", 0, text, length);
        }
        break;
      }
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        EmitFloat(out, spec, va_arg(args, double));
        break;
      case '%':
        out.Put("%", 1);
        break;
      default:
        // Unknown or cut-off directive: shown as written.
        out.Put(directive, p - directive);
        break;
    }
  }
  return static_cast<int>(out.Total());
}

}  // namespace Uefi::Runtime

namespace {

struct Buffer {
  char* data;
  size_t capacity;  // including the terminator
  size_t used;
};

void BufferSink(void* context, const char* piece, size_t length) {
  auto* buffer = static_cast<Buffer*>(context);
  if (buffer->capacity == 0) return;
  size_t room = buffer->capacity - 1 - buffer->used;
  size_t n = length < room ? length : room;
  memcpy(buffer->data + buffer->used, piece, n);
  buffer->used += n;
}

}  // namespace

extern "C" {

int vsnprintf(char* __restrict out, size_t size, const char* __restrict format, va_list args) noexcept {
  Buffer buffer{out, size, 0};
  int length = Uefi::Runtime::Format(BufferSink, &buffer, format, args);
  if (size > 0) out[buffer.used] = '\0';
  return length;
}

int snprintf(char* __restrict out, size_t size, const char* __restrict format, ...) noexcept {
  va_list args;
  va_start(args, format);
  int length = vsnprintf(out, size, format, args);
  va_end(args);
  return length;
}

int vsprintf(char* __restrict out, const char* __restrict format, va_list args) noexcept {
  return vsnprintf(out, SIZE_MAX / 2, format, args);
}

int sprintf(char* __restrict out, const char* __restrict format, ...) noexcept {
  va_list args;
  va_start(args, format);
  int length = vsprintf(out, format, args);
  va_end(args);
  return length;
}

}  // extern "C"
