// The byte form of an error chain, and the record kind that a chain read
// back from bytes is made of.
//
// A block comes from elsewhere (another component, a file) and is trusted in
// nothing: every length is found inside the block, and a block that breaks
// the format gives the errors that were complete before the break.
//
// A record read from a block owns everything it points at.  Its file and
// function names, its named parameters and their names live inline behind
// the fixed fields, so the record stays one allocation; the inline part is
// addressed by offsets so that a byte-for-byte clone only needs its two
// pointers re-based.
#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "common/error_record.h"
#include "common/text.h"

namespace Common {
namespace {

using detail::AllocateRecord;
using detail::CloneRecord;
using detail::FreeRecord;

constexpr uint8_t kFormatVersion = 1;
constexpr size_t kMinErrorBytes = 12;  // code and location code

constexpr char kFieldNumber = 'N';
constexpr char kFieldWide = 'W';
constexpr char kFieldNarrow = 'A';

constexpr std::string_view kFileField = "$file";
constexpr std::string_view kFunctionField = "$func";
constexpr std::string_view kLineField = "$line";
constexpr std::string_view kModuleField = "$module";

// ---------------------------------------------------------------------------
// The inline part of a record read from bytes.

struct SerialHeader {
  uint32_t fileOffset;      // narrow text, 0 for none
  uint32_t functionOffset;  // narrow text, 0 for none
  uint32_t namesOffset;     // the comma-separated parameter names
  uint32_t paramCount;
  uint32_t paramsOffset;  // ParamEntry[paramCount], in block order
  uint32_t sortedOffset;  // uint32_t[paramCount]: entries ordered by name
};

struct ParamEntry {
  uint64_t number;       // kFieldNumber
  uint32_t nameOffset;   // narrow text
  uint32_t valueOffset;  // wide text (kFieldWide) or narrow text (kFieldNarrow)
  uint32_t type;
  uint32_t reserved;
};

constexpr size_t kHeaderOffset = sizeof(ErrorRecord);
static_assert(kHeaderOffset % alignof(SerialHeader) == 0);

const char* At(const ErrorRecord* rec, uint32_t offset) {
  return reinterpret_cast<const char*>(rec) + offset;
}
const SerialHeader& Header(const ErrorRecord* rec) {
  return *reinterpret_cast<const SerialHeader*>(At(rec, kHeaderOffset));
}
const ParamEntry* Params(const ErrorRecord* rec) {
  return reinterpret_cast<const ParamEntry*>(At(rec, Header(rec).paramsOffset));
}
const uint32_t* Sorted(const ErrorRecord* rec) {
  return reinterpret_cast<const uint32_t*>(At(rec, Header(rec).sortedOffset));
}

// The first parameter of that name in block order.  A record may hold many
// thousands of parameters, and the report looks each one up, so this is a
// binary search over the name-ordered index.
const ParamEntry* FindParam(const ErrorRecord* rec, const char* name) {
  if (!name) return nullptr;
  const SerialHeader& h = Header(rec);
  const ParamEntry* params = Params(rec);
  const uint32_t* sorted = Sorted(rec);
  const uint32_t* it = std::lower_bound(sorted, sorted + h.paramCount, name,
                                        [&](uint32_t i, const char* n) {
                                          return std::strcmp(At(rec, params[i].nameOffset), n) < 0;
                                        });
  if (it == sorted + h.paramCount || std::strcmp(At(rec, params[*it].nameOffset), name) != 0)
    return nullptr;
  return &params[*it];
}

ErrorRecord* CloneSerial(const ErrorRecord* rec) {
  ErrorRecord* copy = CloneRecord(rec);
  if (!copy) return nullptr;
  const SerialHeader& h = Header(copy);
  copy->file = h.fileOffset ? At(copy, h.fileOffset) : nullptr;
  copy->function = h.functionOffset ? At(copy, h.functionOffset) : nullptr;
  return copy;
}

void SerialText(const ErrorRecord* rec, std::u16string& out) {
  out.clear();
  if (rec->text) out = reinterpret_cast<const char16_t*>(At(rec, static_cast<uint32_t>(rec->text)));
}

uint64_t SerialNumber(const ErrorRecord* rec, const char* name) {
  const ParamEntry* p = FindParam(rec, name);
  return p && p->type == static_cast<uint32_t>(kFieldNumber) ? p->number : 0;
}

const char* SerialTextParameter(const ErrorRecord* rec, const char* name) {
  if (const ParamEntry* p = FindParam(rec, name))
    return p->type == static_cast<uint32_t>(kFieldNarrow) ? At(rec, p->valueOffset) : nullptr;
  // A block that did not name its module reports ours, like every record.
  return name && kModuleField == name ? kModuleTag : nullptr;
}

const char16_t* SerialWideParameter(const ErrorRecord* rec, const char* name) {
  const ParamEntry* p = FindParam(rec, name);
  if (!p || p->type != static_cast<uint32_t>(kFieldWide)) return nullptr;
  return reinterpret_cast<const char16_t*>(At(rec, p->valueOffset));
}

const char* SerialParameterNames(const ErrorRecord* rec) {
  return At(rec, Header(rec).namesOffset);
}

const ErrorOps kSerialOps{FreeRecord,     CloneSerial,         SerialText,
                          SerialNumber,   SerialTextParameter, SerialWideParameter,
                          SerialParameterNames};

// ---------------------------------------------------------------------------
// Reading a block.

class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : p_(data), left_(size) {}
  size_t Left() const { return left_; }

  bool Byte(uint8_t& v) {
    if (left_ < 1) return false;
    v = *p_;
    Skip(1);
    return true;
  }
  bool Le32(uint32_t& v) {
    if (left_ < 4) return false;
    v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | p_[i];
    Skip(4);
    return true;
  }
  bool Le64(uint64_t& v) {
    if (left_ < 8) return false;
    v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p_[i];
    Skip(8);
    return true;
  }
  // Zero-terminated text; the terminator must lie inside the block.
  bool Text(std::string_view& v) {
    const void* zero = left_ ? std::memchr(p_, 0, left_) : nullptr;
    if (!zero) return false;
    const size_t len = static_cast<size_t>(static_cast<const uint8_t*>(zero) - p_);
    v = std::string_view(reinterpret_cast<const char*>(p_), len);
    Skip(len + 1);
    return true;
  }

 private:
  void Skip(size_t n) {
    p_ += n;
    left_ -= n;
  }
  const uint8_t* p_;
  size_t left_;
};

struct ParsedField {
  std::string_view name;
  char type;
  uint64_t number = 0;
  std::string_view text;
};

struct ParsedError {
  uint32_t code = 0;
  uint64_t locationCode = 0;
  std::string_view message;
  bool hasFile = false, hasFunction = false;
  std::string_view file, function;
  uint32_t line = 0;
  std::vector<ParsedField> params;
};

// Reads one error whose code has been read.  False at a break of the format.
bool ParseError(Reader& r, ParsedError& e) {
  if (!r.Le64(e.locationCode) || !r.Text(e.message)) return false;
  for (;;) {
    ParsedField f;
    uint8_t type;
    if (!r.Text(f.name)) return false;
    if (f.name.empty()) return true;
    if (!r.Byte(type)) return false;
    f.type = static_cast<char>(type);
    if (f.type == kFieldNumber) {
      if (!r.Le64(f.number)) return false;
    } else if (f.type == kFieldWide || f.type == kFieldNarrow) {
      if (!r.Text(f.text)) return false;
    } else {
      return false;
    }

    const bool isText = f.type != kFieldNumber;
    if (f.name == kFileField || f.name == kFunctionField) {
      if (!isText) return false;
      // Both text kinds arrive as UTF-8 or plain bytes; the record keeps
      // them as the narrow text its file and function fields are.
      (f.name == kFileField ? e.file : e.function) = f.text;
      (f.name == kFileField ? e.hasFile : e.hasFunction) = true;
    } else if (f.name == kLineField) {
      if (isText || f.number > UINT32_MAX) return false;
      e.line = static_cast<uint32_t>(f.number);
    } else {
      // The report lists names separated by commas; a name holding one
      // could not be told apart from two.
      if (f.name.find(',') != std::string_view::npos) return false;
      e.params.push_back(f);
    }
  }
}

// Lays out the inline part: offsets from the record's start, each aligned
// for what it holds.
class Layout {
 public:
  size_t Place(size_t bytes, size_t align) {
    size_ = (size_ + align - 1) / align * align;
    const size_t at = size_;
    size_ += bytes;
    return at;
  }
  size_t Size() const { return size_; }

 private:
  size_t size_ = kHeaderOffset + sizeof(SerialHeader);
};

void PutNarrow(char* base, size_t at, std::string_view s) {
  if (!s.empty()) std::memcpy(base + at, s.data(), s.size());
  base[at + s.size()] = 0;
}
void PutWide(char* base, size_t at, const std::u16string& s) {
  if (!s.empty()) std::memcpy(base + at, s.data(), s.size() * sizeof(char16_t));
  std::memset(base + at + s.size() * sizeof(char16_t), 0, sizeof(char16_t));
}

// Makes the record of one parsed error; null when it cannot be allocated.
ErrorRecord* BuildRecord(const ParsedError& e) {
  const size_t n = e.params.size();
  const std::u16string message = Utf8ToUtf16(e.message);
  std::vector<std::u16string> wide(n);
  std::string names;
  bool namesModule = false;
  for (size_t i = 0; i < n; ++i) {
    const ParsedField& f = e.params[i];
    if (f.type == kFieldWide) wide[i] = Utf8ToUtf16(f.text);
    if (i) names.push_back(',');
    names.append(f.name);
    namesModule = namesModule || f.name == kModuleField;
  }
  if (!namesModule) {
    if (n) names.push_back(',');
    names.append(kModuleField);
  }

  Layout layout;
  const size_t paramsAt = layout.Place(n * sizeof(ParamEntry), alignof(ParamEntry));
  const size_t sortedAt = layout.Place(n * sizeof(uint32_t), alignof(uint32_t));
  const size_t messageAt = layout.Place((message.size() + 1) * sizeof(char16_t), alignof(char16_t));
  std::vector<size_t> valueAt(n), nameAt(n);
  for (size_t i = 0; i < n; ++i)
    if (e.params[i].type == kFieldWide)
      valueAt[i] = layout.Place((wide[i].size() + 1) * sizeof(char16_t), alignof(char16_t));
  const size_t fileAt = e.hasFile ? layout.Place(e.file.size() + 1, 1) : 0;
  const size_t functionAt = e.hasFunction ? layout.Place(e.function.size() + 1, 1) : 0;
  const size_t namesAt = layout.Place(names.size() + 1, 1);
  for (size_t i = 0; i < n; ++i) {
    nameAt[i] = layout.Place(e.params[i].name.size() + 1, 1);
    if (e.params[i].type == kFieldNarrow) valueAt[i] = layout.Place(e.params[i].text.size() + 1, 1);
  }

  // Refuses sizes beyond 32 bits, so every offset below fits its field.
  ErrorRecord* rec = AllocateRecord(layout.Size(), &kSerialOps);
  if (!rec) return nullptr;
  char* base = reinterpret_cast<char*>(rec);

  rec->code = e.code;
  rec->locationCode = e.locationCode;
  rec->line = e.line;
  rec->text = messageAt;
  PutWide(base, messageAt, message);

  auto* h = new (base + kHeaderOffset) SerialHeader{};
  if (e.hasFile) {
    PutNarrow(base, fileAt, e.file);
    h->fileOffset = static_cast<uint32_t>(fileAt);
    rec->file = base + fileAt;
  }
  if (e.hasFunction) {
    PutNarrow(base, functionAt, e.function);
    h->functionOffset = static_cast<uint32_t>(functionAt);
    rec->function = base + functionAt;
  }
  PutNarrow(base, namesAt, names);
  h->namesOffset = static_cast<uint32_t>(namesAt);
  h->paramCount = static_cast<uint32_t>(n);
  h->paramsOffset = static_cast<uint32_t>(paramsAt);
  h->sortedOffset = static_cast<uint32_t>(sortedAt);

  auto* params = reinterpret_cast<ParamEntry*>(base + paramsAt);
  auto* sorted = reinterpret_cast<uint32_t*>(base + sortedAt);
  for (size_t i = 0; i < n; ++i) {
    const ParsedField& f = e.params[i];
    ParamEntry& p = *new (&params[i]) ParamEntry{};
    p.type = static_cast<uint32_t>(static_cast<unsigned char>(f.type));
    p.nameOffset = static_cast<uint32_t>(nameAt[i]);
    PutNarrow(base, nameAt[i], f.name);
    if (f.type == kFieldNumber) {
      p.number = f.number;
    } else {
      p.valueOffset = static_cast<uint32_t>(valueAt[i]);
      if (f.type == kFieldWide)
        PutWide(base, valueAt[i], wide[i]);
      else
        PutNarrow(base, valueAt[i], f.text);
    }
    new (&sorted[i]) uint32_t(static_cast<uint32_t>(i));
  }
  // Stable, so that of equal names the first in the block is found.
  std::stable_sort(sorted, sorted + n, [&](uint32_t a, uint32_t b) {
    return e.params[a].name < e.params[b].name;
  });
  return rec;
}

// ---------------------------------------------------------------------------
// Writing a block.

void PutLe(std::string& out, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

// Text up to its first zero, then the terminator.
void PutText(std::string& out, std::string_view s) {
  out.append(s.substr(0, s.find('\0')));
  out.push_back('\0');
}

void PutTextField(std::string& out, std::string_view name, char type, std::string_view value) {
  PutText(out, name);
  out.push_back(type);
  PutText(out, value);
}

}  // namespace

Error DeserializeError(const uint8_t* data, size_t size) {
  if (!data || size < 1 || data[0] != kFormatVersion) return Error();
  Reader r(data + 1, size - 1);
  std::vector<Error> chain;
  while (r.Left() >= kMinErrorBytes) {
    ParsedError e;
    if (!r.Le32(e.code) || e.code == 0) break;
    if (!ParseError(r, e)) break;
    ErrorRecord* rec = BuildRecord(e);
    if (!rec) {
      // Out of memory: the chain ends in the record that says so.
      chain.push_back(Error::Adopt(detail::OutOfMemoryRecord()));
      break;
    }
    chain.push_back(Error::Adopt(rec));
  }
  // Each error is the cause of the one before it.  Every record but the
  // static fallback has one owner here, so SetCause links it in place.
  for (size_t i = chain.size(); i > 1; --i) chain[i - 2].SetCause(chain[i - 1]);
  return chain.empty() ? Error() : chain.front();
}

std::string SerializeError(const Error& error) {
  std::string out;
  out.push_back(static_cast<char>(kFormatVersion));
  std::u16string text;
  for (const ErrorRecord* rec = error.Record(); rec && rec->code != 0; rec = rec->cause) {
    PutLe(out, rec->code, 4);
    PutLe(out, rec->locationCode, 8);
    rec->ops->GetText(rec, text);
    PutText(out, Utf16ToUtf8(text));
    if (rec->file) PutTextField(out, kFileField, kFieldNarrow, rec->file);
    if (rec->function) PutTextField(out, kFunctionField, kFieldNarrow, rec->function);
    if (rec->file || rec->line) {
      PutText(out, kLineField);
      out.push_back(kFieldNumber);
      PutLe(out, rec->line, 8);
    }
    const char* names = rec->ops->GetParameterNames(rec);
    std::string_view all = names ? names : "";
    while (!all.empty()) {
      const size_t comma = all.find(',');
      const std::string_view name = all.substr(0, comma);
      all = comma == std::string_view::npos ? std::string_view() : all.substr(comma + 1);
      // The reserved names would land in the fixed fields when read back.
      if (name.empty() || name == kFileField || name == kFunctionField || name == kLineField)
        continue;
      const std::string n(name);
      if (const char16_t* w = rec->ops->GetWideParameter(rec, n.c_str()))
        PutTextField(out, n, kFieldWide, Utf16ToUtf8(w));
      else if (const char* t = rec->ops->GetTextParameter(rec, n.c_str()))
        PutTextField(out, n, kFieldNarrow, t);
      else {
        PutText(out, n);
        out.push_back(kFieldNumber);
        PutLe(out, rec->ops->GetNumberParameter(rec, n.c_str()), 8);
      }
    }
    out.push_back('\0');  // no more fields
  }
  PutLe(out, 0, 4);
  return out;
}

}  // namespace Common
