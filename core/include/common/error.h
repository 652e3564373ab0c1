// Common::Error: a counted handle on an immutable failure record.
//
// A record is one allocation: fixed fields, then the message copied inline.
// Handles are cheap to copy (one atomic increment) and may be returned,
// stored in a stream's state or thrown; all three carry the same value.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Common {

// Where a failure was raised.  Built at the failure site by ERROR_HERE.
struct ErrorLocation {
  uint64_t locationCode;
  const char* file;
  const char* function;
  uint32_t line;
};

// The fixed 64-bit value of a source file, derived at compile time from its
// path (the build maps paths relative to the source tree, so the value is
// the same on every machine).  A location code is this value plus the line.
consteval uint64_t SourceFileCode(const char* path) {
  uint64_t h = 1469598103934665603ull;  // FNV-1a over the path
  for (const char* p = path; *p; ++p) {
    h ^= static_cast<unsigned char>(*p);
    h *= 1099511628211ull;
  }
  // Leave room below so that adding a line number never carries into the
  // bits that tell files apart in practice.
  return h & ~0xFFFFFull;
}

struct ErrorRecord;

// The seven operations of a record kind, in this order.
struct ErrorOps {
  void (*Destroy)(ErrorRecord*);
  ErrorRecord* (*Clone)(const ErrorRecord*);
  void (*GetText)(const ErrorRecord*, std::u16string& out);
  uint64_t (*GetNumberParameter)(const ErrorRecord*, const char* name);
  const char* (*GetTextParameter)(const ErrorRecord*, const char* name);
  const char16_t* (*GetWideParameter)(const ErrorRecord*, const char* name);
  const char* (*GetParameterNames)(const ErrorRecord*);
};

struct ErrorRecord {
  std::atomic<uint32_t> refCount;
  uint32_t code;
  ErrorRecord* cause;
  const ErrorOps* ops;
  uint64_t locationCode;
  const char* file;
  const char* function;
  uint32_t line;
  uint32_t size;   // bytes of the whole record, inline data included
  uint64_t text;   // offset of the inline text, 0 for none
};

class Error {
 public:
  // Success.
  Error() noexcept : rec_(nullptr) {}
  Error(const ErrorLocation& where, uint32_t code);
  Error(const ErrorLocation& where, uint32_t code, const char16_t* text);
  Error(const ErrorLocation& where, uint32_t code, const char* text);
  Error(const ErrorLocation& where, uint32_t code, const std::u16string& text)
      : Error(where, code, text.c_str()) {}

  Error(const Error& other) noexcept;
  Error(Error&& other) noexcept : rec_(other.rec_) { other.rec_ = nullptr; }
  Error& operator=(const Error& other) noexcept;
  Error& operator=(Error&& other) noexcept;
  ~Error();

  static const Error& Success();

  bool IsError() const noexcept { return rec_ != nullptr && rec_->code != 0; }
  bool IsSuccess() const noexcept { return !IsError(); }

  uint32_t Code() const noexcept { return rec_ ? rec_->code : 0; }
  // The message alone, without location or causes.
  std::u16string Message() const;
  Error Cause() const;
  uint64_t LocationCode() const noexcept { return rec_ ? rec_->locationCode : 0; }
  const char* File() const noexcept { return rec_ ? rec_->file : nullptr; }
  const char* Function() const noexcept { return rec_ ? rec_->function : nullptr; }
  uint32_t Line() const noexcept { return rec_ ? rec_->line : 0; }

  // Makes `cause` the cause of this error.  A shared record is cloned first
  // so that every other owner keeps seeing the record it had.
  void SetCause(const Error& cause);

  // Chain builder: returns a copy of this error with `cause` attached.
  Error WithCause(const Error& cause) const {
    Error e(*this);
    e.SetCause(cause);
    return e;
  }

  const ErrorRecord* Record() const noexcept { return rec_; }
  // Takes ownership of one reference on `rec` (used by the deserialiser).
  static Error Adopt(ErrorRecord* rec) noexcept;

 private:
  ErrorRecord* rec_;
};

// The multi-line report of an error and its causes, as the loader prints it.
std::u16string ErrorText(const Error& error);

// The record every handle falls back to when a record cannot be allocated.
inline constexpr uint32_t kOutOfMemoryFallbackCode = 0xFFF2;

// Rebuilds a chain of errors from its serialised byte form.  A block that
// breaks the format gives what was complete before the break.
Error DeserializeError(const uint8_t* data, size_t size);
// Writes the serialised byte form of a chain (the inverse of the above).
std::string SerializeError(const Error& error);

// The build tag reported as the "$module" parameter of every record.
inline constexpr const char* kModuleTag = "kelvorn_efia64_236";

}  // namespace Common

// This place in the source, in the name of function `name`: for helpers
// whose errors a report should show under the operation the caller used.
#define ERROR_IN(name)                                                            \
  (::Common::ErrorLocation{::Common::SourceFileCode(__FILE__) + __LINE__, __FILE__, \
                           (name), static_cast<uint32_t>(__LINE__)})

#define ERROR_HERE ERROR_IN(__func__)
