// Standard output and error on the firmware's text consoles, and the
// environment of the UEFI shell.
//
// The program writes UTF-8; the consoles take UTF-16 and want "\r\n" line
// ends.  Standard error goes to the error console only when the shell
// variable USE_STDERR_DEV is "Y": on most machines nobody looks at StdErr.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform.h"
#include "runtime.h"

namespace {

// A console with the bytes of a UTF-8 sequence that a write cut in two.
struct Stream {
  SIMPLE_TEXT_OUTPUT_INTERFACE* console = nullptr;
  unsigned char pending[4] = {};
  size_t pendingLength = 0;
};

Stream g_out;
Stream g_err;

// The FILE objects are only addresses to tell the streams apart.
FILE g_stdinFile;
FILE g_stdoutFile;
FILE g_stderrFile;

constexpr EFI_GUID kShellVariableGuid = {
    0x158DEF5A, 0xF656, 0x419C, {0xB0, 0x27, 0x7A, 0x31, 0x92, 0xC0, 0x79, 0xD2}};

class UnitBuffer {
 public:
  explicit UnitBuffer(SIMPLE_TEXT_OUTPUT_INTERFACE* console) : console_(console) {}
  ~UnitBuffer() { Flush(); }

  void Add(char32_t c) {
    if (c == '\n') Add16(u'\r');
    if (c >= 0x10000) {
      c -= 0x10000;
      Add16(static_cast<char16_t>(0xD800 + (c >> 10)));
      Add16(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    } else {
      Add16(static_cast<char16_t>(c));
    }
  }

 private:
  void Add16(char16_t unit) {
    // Room for a surrogate pair and the terminator.
    if (used_ + 3 > kSize) Flush();
    units_[used_++] = unit;
  }
  void Flush() {
    if (used_ == 0) return;
    units_[used_] = 0;
    console_->OutputString(console_, reinterpret_cast<CHAR16*>(units_));
    used_ = 0;
  }

  static constexpr size_t kSize = 256;
  SIMPLE_TEXT_OUTPUT_INTERFACE* console_;
  char16_t units_[kSize];
  size_t used_ = 0;
};

// Length of the UTF-8 sequence that `lead` starts, 0 for a byte that
// cannot start one.
size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead < 0xE0) return 2;
  if (lead >= 0xE0 && lead < 0xF0) return 3;
  if (lead >= 0xF0 && lead < 0xF5) return 4;
  return 0;
}

// Decodes one sequence of `length` bytes; a malformed one gives U+FFFD.
char32_t Decode(const unsigned char* bytes, size_t length) {
  if (length == 1) return bytes[0];
  char32_t c = bytes[0] & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) return 0xFFFD;
    c = (c << 6) | (bytes[i] & 0x3F);
  }
  static constexpr char32_t kMinimum[5] = {0, 0, 0x80, 0x800, 0x10000};
  if (c < kMinimum[length] || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) return 0xFFFD;
  return c;
}

void Write(Stream& stream, const char* text, size_t length) {
  if (!stream.console || !Uefi::BootServicesAvailable() || length == 0) return;
  UnitBuffer out(stream.console);
  auto* p = reinterpret_cast<const unsigned char*>(text);
  auto* end = p + length;
  // Finish a sequence left over from the last write.
  while (stream.pendingLength > 0 && p < end) {
    size_t need = SequenceLength(stream.pending[0]);
    if ((*p & 0xC0) != 0x80) {
      out.Add(0xFFFD);
      stream.pendingLength = 0;
      break;
    }
    stream.pending[stream.pendingLength++] = *p++;
    if (stream.pendingLength == need) {
      out.Add(Decode(stream.pending, need));
      stream.pendingLength = 0;
    }
  }
  while (p < end) {
    size_t need = SequenceLength(*p);
    if (need == 0) {
      out.Add(0xFFFD);
      ++p;
    } else if (static_cast<size_t>(end - p) < need) {
      memcpy(stream.pending, p, end - p);
      stream.pendingLength = end - p;
      p = end;
    } else {
      out.Add(Decode(p, need));
      p += need;
    }
  }
}

Stream& StreamOf(FILE* file) { return file == &g_stderrFile ? g_err : g_out; }

void StreamSink(void* context, const char* piece, size_t length) {
  Write(*static_cast<Stream*>(context), piece, length);
}

}  // namespace

namespace Uefi::Runtime {

void ConsoleWrite(SIMPLE_TEXT_OUTPUT_INTERFACE* console, const char* text, size_t length) {
  Stream stream;
  stream.console = console;
  Write(stream, text, length);
}

void StartStdio() {
  EFI_SYSTEM_TABLE* st = SystemTable();
  g_out.console = st->ConOut;
  const char* useStderr = getenv("USE_STDERR_DEV");
  g_err.console = useStderr && strcmp(useStderr, "Y") == 0 && st->StdErr ? st->StdErr : st->ConOut;
}

}  // namespace Uefi::Runtime

extern "C" {

FILE* stdin = &g_stdinFile;
FILE* stdout = &g_stdoutFile;
FILE* stderr = &g_stderrFile;

int vfprintf(FILE* __restrict file, const char* __restrict format, va_list args) {
  return Uefi::Runtime::Format(StreamSink, &StreamOf(file), format, args);
}

int fprintf(FILE* __restrict file, const char* __restrict format, ...) {
  va_list args;
  va_start(args, format);
  int length = vfprintf(file, format, args);
  va_end(args);
  return length;
}

int vprintf(const char* __restrict format, va_list args) { return vfprintf(stdout, format, args); }

int printf(const char* __restrict format, ...) {
  va_list args;
  va_start(args, format);
  int length = vfprintf(stdout, format, args);
  va_end(args);
  return length;
}

size_t fwrite(const void* __restrict data, size_t size, size_t count, FILE* __restrict file) {
  if (size == 0 || count == 0) return 0;
  Write(StreamOf(file), static_cast<const char*>(data), size * count);
  return count;
}

int fputs(const char* __restrict text, FILE* __restrict file) {
  Write(StreamOf(file), text, strlen(text));
  return 0;
}

int puts(const char* text) {
  Write(g_out, text, strlen(text));
  Write(g_out, "\n", 1);
  return 0;
}

int fputc(int c, FILE* file) {
  char byte = static_cast<char>(c);
  Write(StreamOf(file), &byte, 1);
  return static_cast<unsigned char>(c);
}

int putc(int c, FILE* file) { return fputc(c, file); }
int putchar(int c) { return fputc(c, stdout); }
int fflush(FILE*) { return 0; }

// The shell keeps its environment as volatile variables under its own GUID.
// Values are returned from a list that lives for the whole run, as getenv's
// callers may keep the pointer.
char* getenv(const char* name) noexcept {
  struct Entry {
    Entry* next;
    char* name;
    char* value;
  };
  static Entry* cache = nullptr;
  for (Entry* e = cache; e; e = e->next)
    if (strcmp(e->name, name) == 0) return e->value;
  if (!Uefi::BootServicesAvailable()) return nullptr;

  size_t nameLength = strlen(name);
  auto* wideName = static_cast<CHAR16*>(malloc((nameLength + 1) * sizeof(CHAR16)));
  if (!wideName) return nullptr;
  for (size_t i = 0; i <= nameLength; ++i) wideName[i] = static_cast<unsigned char>(name[i]);
  EFI_GUID guid = kShellVariableGuid;
  CHAR16 value[256];
  UINTN size = sizeof value - sizeof(CHAR16);
  EFI_STATUS status = Uefi::RuntimeServices()->GetVariable(wideName, &guid, nullptr, &size, value);
  free(wideName);
  if (EFI_ERROR(status)) return nullptr;

  size_t units = size / sizeof(CHAR16);
  auto* entry = static_cast<Entry*>(malloc(sizeof(Entry)));
  char* narrowValue = static_cast<char*>(malloc(units + 1));
  char* narrowName = strdup(name);
  if (!entry || !narrowValue || !narrowName) {
    free(entry);
    free(narrowValue);
    free(narrowName);
    return nullptr;
  }
  size_t n = 0;
  for (size_t i = 0; i < units && value[i]; ++i) narrowValue[n++] = value[i] < 0x80 ? static_cast<char>(value[i]) : '?';
  narrowValue[n] = '\0';
  *entry = Entry{cache, narrowName, narrowValue};
  cache = entry;
  return narrowValue;
}

}  // extern "C"
