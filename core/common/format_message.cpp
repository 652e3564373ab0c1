#include "common/format_message.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "common/text.h"

namespace Fdisk {
namespace {

constexpr char16_t kQuote = 0xF800;
constexpr char16_t kLessOrEqual = 0x2264;
// More decimals than this add nothing a reader could use; the cap keeps a
// silly style from producing a silly amount of text.
constexpr uint64_t kMaxDecimals = 20;

bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

void AppendAscii(std::u16string& out, const char* s) {
  for (; *s; ++s) out.push_back(static_cast<unsigned char>(*s));
}

// Reads decimal digits at `pos` into `value`; false if there are none or
// the number does not fit in 64 bits.  `pos` moves past the digits.
bool ReadDigits(std::u16string_view s, size_t& pos, uint64_t& value) {
  const size_t start = pos;
  value = 0;
  for (; pos < s.size() && IsDigit(s[pos]); ++pos) {
    const uint64_t d = s[pos] - u'0';
    if (value > (UINT64_MAX - d) / 10) return false;
    value = value * 10 + d;
  }
  return pos > start;
}

// An optional "-" and digits at `pos`, within the range of int64_t.
bool ReadSignedAt(std::u16string_view s, size_t& pos, int64_t& value) {
  bool negative = false;
  if (pos < s.size() && (s[pos] == u'-' || s[pos] == u'+')) {
    negative = s[pos] == u'-';
    ++pos;
  }
  uint64_t magnitude;
  if (!ReadDigits(s, pos, magnitude)) return false;
  if (negative) {
    if (magnitude > uint64_t(INT64_MAX) + 1) return false;
    value = magnitude == uint64_t(INT64_MAX) + 1 ? INT64_MIN : -static_cast<int64_t>(magnitude);
  } else {
    if (magnitude > uint64_t(INT64_MAX)) return false;
    value = static_cast<int64_t>(magnitude);
  }
  return true;
}

void SkipBlanks(std::u16string_view s, size_t& pos) {
  while (pos < s.size() && IsBlank(s[pos])) ++pos;
}

// The whole of `s` (blanks around allowed) as an unsigned decimal number.
bool ReadUnsigned(std::u16string_view s, uint64_t& value) {
  size_t pos = 0;
  SkipBlanks(s, pos);
  if (!ReadDigits(s, pos, value)) return false;
  SkipBlanks(s, pos);
  return pos == s.size();
}

bool ReadSigned(std::u16string_view s, int64_t& value) {
  size_t pos = 0;
  SkipBlanks(s, pos);
  if (!ReadSignedAt(s, pos, value)) return false;
  SkipBlanks(s, pos);
  return pos == s.size();
}

// Where the placeholder parts of a text end.  A part starting at `s` ends
// at the first "," or "}" at brace depth 0 seen from `s`, outside quoted
// passages (U+F800 toggles one, counted from `s`).  Scanning from every "{"
// afresh would cost the square of the text's length on a text full of
// unclosed braces, which an argument read from a disk can be; this finds
// every end in two passes instead, one for each quote parity a start can
// have.  Built on first use, since most texts never need it.
class PartEnds {
 public:
  explicit PartEnds(const std::u16string& text) : text_(text) {}

  // The end of the part that starts at `s`, or npos if the text ends first.
  size_t operator()(size_t s) {
    if (s >= text_.size()) return std::u16string::npos;
    if (ends_.empty()) Build();
    return ends_[s];
  }

 private:
  void Build() {
    ends_.assign(text_.size(), std::u16string::npos);
    for (unsigned parity = 0; parity < 2; ++parity) Pass(parity);
  }

  // Starts whose count of quote marks before them has this parity.  Of the
  // others' characters, those with the same parity are outside quotes.
  void Pass(unsigned parity) {
    struct Pending {
      int64_t level;
      size_t start;
    };
    // Pending starts never lie above the current level (the "}" that left
    // their level ended them), so they form a stack ordered by level.
    std::vector<Pending> pending;
    int64_t level = 0;
    unsigned quotes = 0;
    for (size_t p = 0; p < text_.size(); ++p) {
      if ((quotes & 1) == parity) pending.push_back({level, p});
      const char16_t c = text_[p];
      if (c == kQuote) {
        ++quotes;
        continue;
      }
      if ((quotes & 1) != parity) continue;  // quoted, as seen from these starts
      if (c == u',' || c == u'}') {
        while (!pending.empty() && pending.back().level == level) {
          ends_[pending.back().start] = p;
          pending.pop_back();
        }
      }
      if (c == u'{') ++level;
      if (c == u'}') --level;
    }
  }

  const std::u16string& text_;
  std::vector<size_t> ends_;
};

struct Placeholder {
  uint64_t index = 0;
  bool reachable = true;  // false for an index beyond any argument count
  size_t typeStart = 0, typeEnd = 0;    // the type, empty for none
  size_t styleStart = 0, styleEnd = 0;  // the style, empty for none
  size_t end = 0;                       // one past the closing "}"
};

// Reads the placeholder whose "{" stands at `open`.  False if the text
// there is not one: no digits, no closing brace, more than three parts.
bool ParsePlaceholder(const std::u16string& text, size_t open, PartEnds& ends, Placeholder& ph) {
  size_t pos = open + 1;
  const size_t digitsStart = pos;
  uint64_t index = 0;
  for (; pos < text.size() && IsDigit(text[pos]); ++pos) {
    const uint64_t d = text[pos] - u'0';
    if (index > (UINT32_MAX - d) / 10) {
      ph.reachable = false;  // keep reading: it is still a placeholder
      index = UINT32_MAX;
    } else if (ph.reachable) {
      index = index * 10 + d;
    }
  }
  if (pos == digitsStart || pos >= text.size()) return false;
  ph.index = index;
  if (text[pos] == u'}') {
    ph.end = pos + 1;
    return true;
  }
  if (text[pos] != u',') return false;

  ph.typeStart = pos + 1;
  ph.typeEnd = ends(ph.typeStart);
  if (ph.typeEnd == std::u16string::npos) return false;
  if (text[ph.typeEnd] == u'}') {
    ph.end = ph.typeEnd + 1;
    return true;
  }
  ph.styleStart = ph.typeEnd + 1;
  ph.styleEnd = ends(ph.styleStart);
  if (ph.styleEnd == std::u16string::npos || text[ph.styleEnd] != u'}') return false;
  ph.end = ph.styleEnd + 1;
  return true;
}

// Splits a choice style at "|" outside quotes and nested braces.  Quote
// marks are kept here; the chosen text drops them.
template <typename Fn>
void ForEachAlternative(const std::u16string& style, Fn&& fn) {
  size_t depth = 0;
  bool quoted = false;
  size_t start = 0;
  for (size_t i = 0; i <= style.size(); ++i) {
    if (i == style.size()) {
      if (fn(std::u16string_view(style).substr(start, i - start))) return;
      break;
    }
    const char16_t c = style[i];
    if (c == kQuote) {
      quoted = !quoted;
    } else if (quoted) {
      continue;
    } else if (c == u'{') {
      ++depth;
    } else if (c == u'}') {
      if (depth) --depth;
    } else if (c == u'|' && depth == 0) {
      if (fn(std::u16string_view(style).substr(start, i - start))) return;
      start = i + 1;
    }
  }
}

}  // namespace

SubformatBase::~SubformatBase() = default;

void SubformatSimple::Format(const std::u16string& argument, std::u16string& result,
                             const std::u16string&) const {
  result = argument;
}

void SubformatChoice::Format(const std::u16string& argument, std::u16string& result,
                             const std::u16string& style) const {
  result.clear();
  int64_t value;
  if (!ReadSigned(argument, value)) return;
  ForEachAlternative(style, [&](std::u16string_view alt) {
    size_t pos = 0;
    SkipBlanks(alt, pos);
    int64_t number;
    if (!ReadSignedAt(alt, pos, number)) return false;  // malformed: try the next
    SkipBlanks(alt, pos);
    if (pos >= alt.size()) return false;
    bool match;
    switch (alt[pos]) {
      case u'#':
      case kLessOrEqual:
        match = value == number;
        break;
      case u'<':
        match = value > number;
        break;
      case u'>':
        match = value < number;
        break;
      default:
        return false;
    }
    if (!match) return false;
    for (char16_t c : alt.substr(pos + 1))
      if (c != kQuote) result.push_back(c);
    return true;
  });
}

void SubformatNumber::Format(const std::u16string& argument, std::u16string& result,
                             const std::u16string& style) const {
  uint64_t value;
  if (style != u"hex" || !ReadUnsigned(argument, value)) {
    result = argument;
    return;
  }
  const unsigned long high = static_cast<unsigned long>(value >> 32);
  const unsigned long low = static_cast<unsigned long>(value & 0xFFFFFFFFu);
  char buf[40];
  if (high)
    std::snprintf(buf, sizeof buf, "%lX%lX", high, low);
  else
    std::snprintf(buf, sizeof buf, "%lX", low);
  result.clear();
  AppendAscii(result, buf);
}

void SubformatBytesize::Format(const std::u16string& argument, std::u16string& result,
                               const std::u16string& style) const {
  uint64_t bytes;
  if (!ReadUnsigned(argument, bytes)) {
    result = argument;
    return;
  }
  char buf[48];
  result.clear();
  if (bytes < 1024) {
    std::snprintf(buf, sizeof buf, "%llu Bytes", static_cast<unsigned long long>(bytes));
    AppendAscii(result, buf);
    return;
  }
  static const char* const kUnits[] = {"KB", "MB", "GB", "TB"};
  unsigned unit = 0;
  uint64_t divisor = 1024;
  while (unit + 1 < 4 && bytes / divisor >= 1024) {
    divisor *= 1024;
    ++unit;
  }
  uint64_t decimals = 0;
  if (!ReadUnsigned(style, decimals)) decimals = 0;
  if (decimals > kMaxDecimals) decimals = kMaxDecimals;

  // Exact decimal expansion of bytes / divisor, rounded like printf rounds
  // an exact value: half-way cases go to the even digit.
  uint64_t whole = bytes / divisor;
  uint64_t rest = bytes % divisor;  // below 2^40, so rest * 10 cannot overflow
  std::string digits;
  for (uint64_t i = 0; i < decimals; ++i) {
    rest *= 10;
    digits.push_back(static_cast<char>('0' + rest / divisor));
    rest %= divisor;
  }
  const unsigned lastDigit = digits.empty() ? unsigned(whole % 10) : unsigned(digits.back() - '0');
  const bool up = rest * 2 > divisor || (rest * 2 == divisor && (lastDigit & 1));
  if (up) {
    size_t i = digits.size();
    while (i > 0 && digits[i - 1] == '9') digits[--i] = '0';
    if (i > 0)
      ++digits[i - 1];
    else
      ++whole;
  }
  std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(whole));
  AppendAscii(result, buf);
  if (!digits.empty()) {
    result.push_back(u'.');
    AppendAscii(result, digits.c_str());
  }
  result.push_back(u' ');
  AppendAscii(result, kUnits[unit]);
}

void SubformatCurrency::Format(const std::u16string& argument, std::u16string& result,
                               const std::u16string& style) const {
  result = argument;
  uint64_t decimals;
  if (!ReadUnsigned(style, decimals) || decimals == 0) return;
  const size_t dot = argument.find(u'.');
  if (dot == std::u16string::npos) return;
  const size_t after = argument.size() - dot - 1;
  if (decimals < after) result.resize(dot + 1 + static_cast<size_t>(decimals));
}

FormatMessage::FormatMessage(std::u16string_view pattern) : text_(pattern) {
  subformats_.emplace(u"simple", std::make_unique<SubformatSimple>());
  subformats_.emplace(u"choice", std::make_unique<SubformatChoice>());
  subformats_.emplace(u"bytesize", std::make_unique<SubformatBytesize>());
  subformats_.emplace(u"currency", std::make_unique<SubformatCurrency>());
  subformats_.emplace(u"number", std::make_unique<SubformatNumber>());
}

FormatMessage::FormatMessage(const char16_t* pattern)
    : FormatMessage(pattern ? std::u16string_view(pattern) : std::u16string_view()) {}

FormatMessage::FormatMessage(FormatMessage&&) noexcept = default;
FormatMessage& FormatMessage::operator=(FormatMessage&&) noexcept = default;
FormatMessage::~FormatMessage() = default;

void FormatMessage::Register(std::u16string name, std::unique_ptr<SubformatBase> subformat) {
  if (!subformat) return;
  subformats_[std::move(name)] = std::move(subformat);
}

FormatMessage& FormatMessage::Add(std::u16string_view argument) {
  Substitute(count_, std::u16string(argument));
  ++count_;
  return *this;
}

FormatMessage& FormatMessage::Add(const char16_t* argument) {
  return Add(argument ? std::u16string_view(argument) : std::u16string_view());
}

FormatMessage& FormatMessage::Add(const char* argument) {
  return Add(std::u16string_view(Common::Utf8ToUtf16(argument ? argument : "")));
}

void FormatMessage::Substitute(size_t index, const std::u16string& argument) {
  // The new text is built beside the old one, so that each argument costs
  // one pass over the text however many placeholders it fills.
  std::u16string result;
  PartEnds ends(text_);
  std::u16string out, type, style;
  size_t copied = 0;  // text_ before this is in `result`
  size_t pos = 0;
  bool changed = false;
  while ((pos = text_.find(u'{', pos)) != std::u16string::npos) {
    const size_t open = pos;
    Placeholder ph;
    if (!ParsePlaceholder(text_, open, ends, ph)) {
      pos = open + 1;
      continue;
    }
    // Another argument's placeholder, or one no subformat answers, is left
    // whole; what nests in its style is reached only through the text it
    // puts in later.
    pos = ph.end;
    if (!ph.reachable || ph.index != index) continue;
    type.assign(text_, ph.typeStart, ph.typeEnd - ph.typeStart);
    const auto it = subformats_.find(type.empty() ? std::u16string_view(u"simple") : type);
    if (it == subformats_.end()) continue;
    style.assign(text_, ph.styleStart, ph.styleEnd - ph.styleStart);
    it->second->Format(argument, out, style);
    // Arguments that hold placeholders of later ones can multiply the text
    // with each argument; past the cap a placeholder stays unfilled.
    const size_t projected = result.size() + (open - copied) + out.size() + (text_.size() - ph.end);
    if (projected > kMaxTextUnits) continue;
    result.append(text_, copied, open - copied);
    result += out;
    copied = ph.end;
    changed = true;
  }
  if (!changed) return;
  result.append(text_, copied, std::u16string::npos);
  text_ = std::move(result);
}

}  // namespace Fdisk
