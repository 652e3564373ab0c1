#include "common/error.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/error_record.h"

namespace Common {
namespace detail {

ErrorRecord* AllocateRecord(size_t size, const ErrorOps* ops) {
  if (size < sizeof(ErrorRecord) || size > UINT32_MAX) return nullptr;
  void* block = std::calloc(1, size);
  if (!block) return nullptr;
  auto* rec = new (block) ErrorRecord();
  rec->refCount.store(1, std::memory_order_relaxed);
  rec->ops = ops;
  rec->size = static_cast<uint32_t>(size);
  return rec;
}

void FreeRecord(ErrorRecord* rec) {
  rec->~ErrorRecord();
  std::free(rec);
}

ErrorRecord* CloneRecord(const ErrorRecord* rec) {
  void* block = std::malloc(rec->size);
  if (!block) return nullptr;
  std::memcpy(block, static_cast<const void*>(rec), rec->size);
  auto* copy = static_cast<ErrorRecord*>(block);
  // The atomic was copied as bytes; give it a proper value.
  new (&copy->refCount) std::atomic<uint32_t>(1);
  copy->cause = nullptr;
  return copy;
}

uint64_t NoNumberParameter(const ErrorRecord*, const char*) { return 0; }
const char* ModuleTextParameter(const ErrorRecord*, const char* name) {
  return name && std::strcmp(name, "$module") == 0 ? kModuleTag : nullptr;
}
const char16_t* NoWideParameter(const ErrorRecord*, const char*) { return nullptr; }
const char* ModuleParameterNames(const ErrorRecord*) { return "$module"; }

}  // namespace detail

namespace {

using namespace detail;

void WideText(const ErrorRecord* rec, std::u16string& out) {
  out.clear();
  if (rec->text) out = reinterpret_cast<const char16_t*>(reinterpret_cast<const char*>(rec) + rec->text);
}

void NarrowText(const ErrorRecord* rec, std::u16string& out) {
  out.clear();
  if (!rec->text) return;
  for (const char* p = reinterpret_cast<const char*>(rec) + rec->text; *p; ++p)
    out.push_back(static_cast<unsigned char>(*p));
}

void NoText(const ErrorRecord*, std::u16string& out) { out.clear(); }

const ErrorOps kWideOps{FreeRecord, CloneRecord, WideText, NoNumberParameter,
                        ModuleTextParameter, NoWideParameter, ModuleParameterNames};
const ErrorOps kNarrowOps{FreeRecord, CloneRecord, NarrowText, NoNumberParameter,
                          ModuleTextParameter, NoWideParameter, ModuleParameterNames};
const ErrorOps kNoTextOps{FreeRecord, CloneRecord, NoText, NoNumberParameter,
                          ModuleTextParameter, NoWideParameter, ModuleParameterNames};

// Stands in when no record can be allocated.  It starts at 1 and every
// handle that holds it counts, so it is never destroyed.
void NeverDestroy(ErrorRecord*) {}
ErrorRecord* CloneFallback(const ErrorRecord*) { return nullptr; }
const ErrorOps kFallbackOps{NeverDestroy, CloneFallback, NoText, NoNumberParameter,
                            ModuleTextParameter, NoWideParameter, ModuleParameterNames};
ErrorRecord g_fallback{{1}, kOutOfMemoryFallbackCode, nullptr, &kFallbackOps, 0, nullptr,
                       nullptr, 0, sizeof(ErrorRecord), 0};

ErrorRecord* Fallback() {
  g_fallback.refCount.fetch_add(1, std::memory_order_relaxed);
  return &g_fallback;
}

}  // namespace

ErrorRecord* detail::OutOfMemoryRecord() { return Fallback(); }

namespace {

void Retain(ErrorRecord* rec) {
  if (rec) rec->refCount.fetch_add(1, std::memory_order_relaxed);
}

// Gives up one reference; a chain of dying records is walked in a loop so
// that a long chain cannot exhaust the stack.
void Release(ErrorRecord* rec) {
  while (rec) {
    if (rec->refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    ErrorRecord* next = rec->cause;
    rec->ops->Destroy(rec);
    rec = next;
  }
}

void FillLocation(ErrorRecord* rec, const ErrorLocation& where, uint32_t code) {
  rec->code = code;
  rec->locationCode = where.locationCode;
  rec->file = where.file;
  rec->function = where.function;
  rec->line = where.line;
}

template <typename Ch>
ErrorRecord* MakeTextRecord(const ErrorLocation& where, uint32_t code, const Ch* text,
                            const ErrorOps* ops) {
  size_t len = 0;
  if (text)
    while (text[len]) ++len;
  const size_t offset = sizeof(ErrorRecord);
  ErrorRecord* rec = AllocateRecord(offset + (len + 1) * sizeof(Ch), ops);
  if (!rec) return Fallback();
  FillLocation(rec, where, code);
  rec->text = offset;
  Ch* dst = reinterpret_cast<Ch*>(reinterpret_cast<char*>(rec) + offset);
  if (len) std::memcpy(dst, text, len * sizeof(Ch));
  dst[len] = 0;
  return rec;
}

void AppendAscii(std::u16string& out, const char* s) {
  for (; *s; ++s) out.push_back(static_cast<unsigned char>(*s));
}

void AppendHex(std::u16string& out, uint64_t value) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(value));
  AppendAscii(out, buf);
}

// Appends `text`, continuing each new line inside the report's margin.
void AppendIndented(std::u16string& out, const std::u16string& text) {
  for (char16_t c : text) {
    if (c == u'\n')
      out += u"\n| ";
    else
      out.push_back(c);
  }
}

void FormatRecord(std::u16string& out, const ErrorRecord* rec, bool head) {
  out += head ? u"Error " : u"\n| error ";
  AppendHex(out, rec->code);
  std::u16string text;
  rec->ops->GetText(rec, text);
  if (!text.empty()) {
    out += u": ";
    AppendIndented(out, text);
  }
  out += u"\n| line: ";
  AppendHex(out, rec->locationCode);
  if (rec->file) {
    out += u"\n| file: ";
    AppendAscii(out, rec->file);
    char buf[32];
    std::snprintf(buf, sizeof buf, ":%llu", static_cast<unsigned long long>(rec->line));
    AppendAscii(out, buf);
  }
  if (rec->function) {
    out += u"\n| function: ";
    AppendAscii(out, rec->function);
  }
  const char* names = rec->ops->GetParameterNames(rec);
  if (!names) return;
  std::string all(names);
  size_t start = 0;
  while (start <= all.size()) {
    size_t comma = all.find(',', start);
    if (comma == std::string::npos) comma = all.size();
    std::string name = all.substr(start, comma - start);
    start = comma + 1;
    if (name.empty()) continue;
    out += u"\n| ";
    AppendAscii(out, name.c_str());
    out += u": ";
    if (const char16_t* w = rec->ops->GetWideParameter(rec, name.c_str())) {
      AppendIndented(out, w);
    } else if (const char* t = rec->ops->GetTextParameter(rec, name.c_str())) {
      std::u16string wide;
      AppendAscii(wide, t);
      AppendIndented(out, wide);
    } else {
      AppendHex(out, rec->ops->GetNumberParameter(rec, name.c_str()));
    }
  }
}

}  // namespace

Error::Error(const ErrorLocation& where, uint32_t code) : rec_(nullptr) {
  if (code == 0) return;
  ErrorRecord* rec = AllocateRecord(sizeof(ErrorRecord), &kNoTextOps);
  if (!rec) {
    rec_ = Fallback();
    return;
  }
  FillLocation(rec, where, code);
  rec_ = rec;
}

Error::Error(const ErrorLocation& where, uint32_t code, const char16_t* text) : rec_(nullptr) {
  if (code == 0) return;
  rec_ = MakeTextRecord(where, code, text, &kWideOps);
}

Error::Error(const ErrorLocation& where, uint32_t code, const char* text) : rec_(nullptr) {
  if (code == 0) return;
  rec_ = MakeTextRecord(where, code, text, &kNarrowOps);
}

Error::Error(const Error& other) noexcept : rec_(other.rec_) { Retain(rec_); }

Error& Error::operator=(const Error& other) noexcept {
  if (rec_ != other.rec_) {
    Retain(other.rec_);
    Release(rec_);
    rec_ = other.rec_;
  }
  return *this;
}

Error& Error::operator=(Error&& other) noexcept {
  if (this != &other) {
    Release(rec_);
    rec_ = other.rec_;
    other.rec_ = nullptr;
  }
  return *this;
}

Error::~Error() { Release(rec_); }

const Error& Error::Success() {
  static const Error success;
  return success;
}

Error Error::Adopt(ErrorRecord* rec) noexcept {
  Error e;
  e.rec_ = rec;
  return e;
}

std::u16string Error::Message() const {
  std::u16string text;
  if (rec_) rec_->ops->GetText(rec_, text);
  return text;
}

Error Error::Cause() const {
  Error e;
  if (rec_ && rec_->cause) {
    Retain(rec_->cause);
    e.rec_ = rec_->cause;
  }
  return e;
}

void Error::SetCause(const Error& cause) {
  Error keep(cause);  // `cause` may be this very handle
  if (!rec_) {
    *this = static_cast<Error&&>(keep);
    return;
  }
  // Records stay immutable for everyone else: work on a private copy when
  // the record is shared (which includes being its own cause).
  if (rec_->refCount.load(std::memory_order_acquire) > 1) {
    ErrorRecord* copy = rec_->ops->Clone(rec_);
    if (!copy) return;
    Release(rec_);
    rec_ = copy;
  }
  Release(rec_->cause);
  rec_->cause = keep.rec_;
  keep.rec_ = nullptr;
}

std::u16string ErrorText(const Error& error) {
  if (error.IsSuccess()) return u"Success";
  std::u16string out;
  const ErrorRecord* rec = error.Record();
  FormatRecord(out, rec, true);
  for (const ErrorRecord* c = rec->cause; c && c->code != 0; c = c->cause) {
    out += u"\n|";
    FormatRecord(out, c, false);
  }
  return out;
}

}  // namespace Common
