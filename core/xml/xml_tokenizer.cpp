#include <cstring>
#include <string_view>

#include "common/text.h"
#include "file/file.h"
#include "xml/xml_readers.h"

namespace {

bool IsWhitespace(int c) { return c == 9 || c == 10 || c == 13 || c == 32; }
bool IsLetter(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(int c) { return c >= '0' && c <= '9'; }
bool IsNameStart(int c) { return IsLetter(c) || c == '_' || c == ':'; }
bool IsNameChar(int c) { return IsNameStart(c) || IsDigit(c) || c == '-' || c == '.'; }

int DigitValue(int c, unsigned base) {
  if (IsDigit(c)) return c - '0';
  if (base == 16 && c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (base == 16 && c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool XmlTokenizer::Ensure(size_t count) {
  while (buffer_.size() - position_ < count && !endOfInput_) {
    // Nothing in front of the position is ever looked at again.
    buffer_.erase(0, position_);
    position_ = 0;
    // The start state must not read past the magic: a binary reader goes
    // on from the fifth byte of the stream.
    const size_t want = state == kStart ? 4 - buffer_.size() : kBlockSize;
    const size_t old = buffer_.size();
    buffer_.resize(old + want);
    uint64_t got = 0;
    stream_->Read(&buffer_[old], want, got);
    if (got > want) got = want;  // a misbehaving stream must not widen the buffer
    buffer_.resize(old + static_cast<size_t>(got));
    if (got == 0) endOfInput_ = true;
  }
  return buffer_.size() - position_ >= count;
}

int XmlTokenizer::Peek(size_t ahead) {
  if (!Ensure(ahead + 1)) return -1;
  return static_cast<unsigned char>(buffer_[position_ + ahead]);
}

bool XmlTokenizer::Matches(const char* literal) {
  const size_t n = std::strlen(literal);
  for (size_t i = 0; i < n; ++i) {
    if (Peek(i) != static_cast<unsigned char>(literal[i])) return false;
  }
  return true;
}

void XmlTokenizer::Advance(size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const unsigned char c = static_cast<unsigned char>(buffer_[position_ + i]);
    if (c == '\n') {
      ++scanLine_;
      scanColumn_ = 0;
    } else if (c == '\t') {
      scanColumn_ = (scanColumn_ + 8) & ~7u;
    } else if ((c & 0xC0) != 0x80) {
      // A character counts once, whatever the length of its encoding.
      ++scanColumn_;
    }
  }
  position_ += count;
}

void XmlTokenizer::MarkToken() {
  line = scanLine_;
  column = scanColumn_;
}

int XmlTokenizer::Fail(bool atTokenStart) {
  if (!atTokenStart) MarkToken();
  failed_ = true;
  return kError;
}

int XmlTokenizer::Next() {
  name.clear();
  value.clear();
  int result = kError;
  while (!failed_) {
    switch (state) {
      case kStart: result = ScanStart(); break;
      case kContent: result = ScanContent(); break;
      case kTag: result = ScanTag(); break;
      case kAttributeDouble: result = ScanAttribute('"'); break;
      case kAttributeSingle: result = ScanAttribute('\''); break;
      case kCdata: result = ScanCdata(); break;
      case kComment: result = ScanComment(); break;
      case kProcessingInstruction: result = ScanProcessingInstruction(); break;
      case kDoctype: result = ScanDoctype(); break;
    }
    if (result >= 0) break;
  }
  if (failed_) result = kError;
  token = result;
  return result;
}

int XmlTokenizer::ScanStart() {
  MarkToken();
  if (Matches("BXML")) {
    Advance(4);
    state = kContent;
    return kMagic;
  }
  // A byte-order mark says nothing we do not assume anyway; it takes no
  // column either.
  if (Matches("\xEF\xBB\xBF")) position_ += 3;
  state = kContent;
  return -1;
}

bool XmlTokenizer::TakeChar() {
  Ensure(4);
  const size_t avail = buffer_.size() - position_;
  uint32_t cp = 0;
  const size_t n = Common::DecodeUtf8Strict(
      std::string_view(buffer_).substr(position_, avail < 4 ? avail : 4), cp);
  if (n == 0) return false;
  if (cp < 32 && !IsWhitespace(static_cast<int>(cp))) return false;
  if (cp == 0xFFFE || cp == 0xFFFF) return false;
  Common::AppendUtf16(value, cp);
  Advance(n);
  return true;
}

bool XmlTokenizer::TakeWhitespaceRun() {
  bool any = false;
  while (IsWhitespace(Peek(0))) {
    Advance(1);
    any = true;
  }
  return any;
}

void XmlTokenizer::ScanName() {
  for (int c = Peek(0); IsNameChar(c); c = Peek(0)) {
    name.push_back(static_cast<char>(c));
    Advance(1);
  }
}

int XmlTokenizer::ScanContent() {
  for (;;) {
    MarkToken();
    const int c = Peek(0);
    // A blank still pending at the end is trailing space: dropped.
    if (c < 0) return kEnd;
    if (c == '<') {
      const int c1 = Peek(1);
      if (c1 == '/') {
        if (!IsNameStart(Peek(2))) {
          Advance(2);
          return Fail();
        }
        Advance(2);
        ScanName();
        space = 0;
        state = kTag;
        return kEndTag;
      }
      if (IsNameStart(c1)) {
        if (space == 1) {
          // The inner blank goes to the parent's text; the tag is read
          // again on the next call.
          space = 0;
          value = u" ";
          return kText;
        }
        Advance(1);
        ScanName();
        space = 2;
        state = kTag;
        return kStartTag;
      }
      if (c1 == '?') {
        Advance(2);
        state = kProcessingInstruction;
        return -1;
      }
      if (c1 == '!') {
        if (Matches("<!--")) {
          Advance(4);
          state = kComment;
          return -1;
        }
        if (Matches("<![CDATA[")) {
          if (space == 1) {
            space = 0;
            value = u" ";
            return kText;
          }
          Advance(9);
          state = kCdata;
          return -1;
        }
        if (Matches("<!DOCTYPE") && IsWhitespace(Peek(9))) {
          Advance(10);
          state = kDoctype;
          return -1;
        }
      }
      return Fail();
    }
    if (c == '&') return ScanEntity();
    if (!preserve && IsWhitespace(c)) {
      TakeBlanks();
      continue;
    }
    return ScanTextRun(-1);
  }
}

void XmlTokenizer::TakeBlanks() {
  TakeWhitespaceRun();
  if (space == 0) space = 1;
}

int XmlTokenizer::ScanTextRun(int quote) {
  // A text token runs up to markup, an entity, the closing quote or
  // (outside `preserve`) a blank, and carries the pending blank in front.
  if (space == 1) value.push_back(u' ');
  space = 0;
  for (int d = Peek(0);
       d >= 0 && d != '<' && d != '&' && d != quote && (preserve || !IsWhitespace(d));
       d = Peek(0)) {
    if (!TakeChar()) return Fail();
  }
  return kText;
}

int XmlTokenizer::ScanTag() {
  TakeWhitespaceRun();
  MarkToken();
  const int c = Peek(0);
  if (c < 0) return kEnd;
  if (c == '/') {
    if (Peek(1) != '>') return Fail();
    Advance(2);
    state = kContent;
    space = 0;
    return kEmptyTagClose;
  }
  if (c == '>') {
    Advance(1);
    state = kContent;
    return kTagClose;
  }
  if (IsNameStart(c)) {
    ScanName();
    return kAttributeName;
  }
  if (c == '=') {
    Advance(1);
    TakeWhitespaceRun();
    const int q = Peek(0);
    if (q != '"' && q != '\'') return Fail();
    Advance(1);
    state = q == '"' ? kAttributeDouble : kAttributeSingle;
    space = 2;
    return kAttributeEquals;
  }
  return Fail();
}

int XmlTokenizer::ScanAttribute(char quote) {
  for (;;) {
    MarkToken();
    const int c = Peek(0);
    if (c < 0 || c == '<') return Fail();
    if (c == quote) {
      Advance(1);
      state = kTag;
      space = 2;
      return -1;
    }
    if (c == '&') return ScanEntity();
    if (!preserve && IsWhitespace(c)) {
      TakeBlanks();
      continue;
    }
    return ScanTextRun(quote);
  }
}

int XmlTokenizer::ScanEntity() {
  if (space == 1) value.push_back(u' ');
  space = 0;
  Advance(1);  // "&"
  if (Peek(0) == '#') {
    Advance(1);
    unsigned base = 10;
    if (Peek(0) == 'x') {
      base = 16;
      Advance(1);
    }
    uint32_t cp = 0;
    size_t digits = 0;
    for (int d = DigitValue(Peek(0), base); d >= 0; d = DigitValue(Peek(0), base)) {
      // Checked at every digit, so the value never grows past 0x10FFFF*16+15.
      cp = cp * base + static_cast<uint32_t>(d);
      if (cp > 0x10FFFF) return Fail(true);
      Advance(1);
      ++digits;
    }
    if (digits == 0 || Peek(0) != ';') return Fail(true);
    Advance(1);
    Common::AppendUtf16(value, cp);
    return kText;
  }
  static const struct {
    const char* name;
    char16_t ch;
  } kNamed[] = {{"amp", u'&'}, {"apos", u'\''}, {"gt", u'>'}, {"lt", u'<'}, {"quot", u'"'}};
  std::string ref;
  // No known name is longer than four letters; a fifth already fails.
  while (ref.size() < 5 && IsLetter(Peek(0))) {
    ref.push_back(static_cast<char>(Peek(0)));
    Advance(1);
  }
  if (Peek(0) != ';') return Fail(true);
  for (const auto& e : kNamed) {
    if (ref == e.name) {
      Advance(1);
      value.push_back(e.ch);
      return kText;
    }
  }
  return Fail(true);
}

int XmlTokenizer::ScanCdata() {
  for (;;) {
    const int c = Peek(0);
    if (c < 0) return Fail();
    if (c == ']' && Matches("]]>")) {
      Advance(3);
      state = kContent;
      space = 0;
      return kText;
    }
    if (c == '\r') {
      Advance(1);
      continue;
    }
    if (!TakeChar()) return Fail();
  }
}

int XmlTokenizer::ScanComment() {
  for (;;) {
    const int c = Peek(0);
    if (c < 0) return Fail();
    if (c == '-' && Matches("-->")) {
      Advance(3);
      state = kContent;
      return -1;
    }
    if (c < 32 && !IsWhitespace(c)) return Fail();
    Advance(1);
  }
}

int XmlTokenizer::ScanProcessingInstruction() {
  for (;;) {
    const int c = Peek(0);
    if (c < 0) return Fail();
    if (c == '?' && Peek(1) == '>') {
      Advance(2);
      state = kContent;
      return -1;
    }
    Advance(1);
  }
}

int XmlTokenizer::ScanDoctype() {
  for (;;) {
    const int c = Peek(0);
    // An internal subset could declare entities; we do not expand any.
    if (c < 0 || c == '[') return Fail();
    Advance(1);
    if (c == '>') {
      state = kContent;
      return -1;
    }
  }
}
