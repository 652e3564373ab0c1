#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/error_codes.h"
#include "common/format_message.h"
#include "test_util.h"

using Fdisk::FormatMessage;

namespace {

std::u16string Format(const std::u16string& pattern, std::initializer_list<std::u16string> args) {
  FormatMessage m(pattern);
  for (const auto& a : args) m.Add(a);
  return m.Text();
}

// One placeholder, one argument.
std::u16string FormatOne(const std::u16string& type, const std::u16string& style,
                         const std::u16string& arg) {
  return Format(u"{0," + type + u"," + style + u"}", {arg});
}

// One table row: argument and style in, text out.
struct Styled {
  const char16_t* arg;
  const char16_t* style;
  const char16_t* expected;
};

void ExpectStyled(const std::u16string& type, std::initializer_list<Styled> cases) {
  for (const Styled& c : cases)
    EXPECT_EQ(FormatOne(type, c.style, c.arg), c.expected)
        << test_util::Narrow(type) << ": " << test_util::Narrow(c.arg) << " / "
        << test_util::Narrow(c.style);
}

TEST(FormatMessage, PartitionFileMessageTakesBothArguments) {
  FormatMessage m(Common::StandardErrorText(Common::Codes::CannotGetFileFromPartition));
  m.Add(u"\\EFI\\boot\\vmlinuz");
  // The second placeholder waits for its argument.
  EXPECT_EQ(m.Text(), u"Cannot get file \"\\EFI\\boot\\vmlinuz\" from the partition with GUID {1}.");
  m.Add("6F5C0B2A-33D1-4E8A-9B7C-0123456789AB");
  EXPECT_EQ(m.Text(),
            u"Cannot get file \"\\EFI\\boot\\vmlinuz\" from the partition with GUID "
            u"6F5C0B2A-33D1-4E8A-9B7C-0123456789AB.");
  EXPECT_EQ(m.ArgumentCount(), 2u);
}

TEST(FormatMessage, EveryOccurrenceAndOrderOfIndexes) {
  EXPECT_EQ(Format(u"{1}-{0}-{1}", {u"a", u"b"}), u"b-a-b");
  EXPECT_EQ(Format(u"{0}{0}{0}", {u"xy"}), u"xyxyxy");
  EXPECT_EQ(Format(u"{0,simple,whatever}", {u"v"}), u"v");
  EXPECT_EQ(Format(u"{00}", {u"v"}), u"v");
  EXPECT_EQ(Format(u"{0,}", {u"v"}), u"v");  // empty type means simple
}

TEST(FormatMessage, ArgumentsAreNotRescannedForThemselves) {
  // An argument holding its own placeholder must not loop or expand.
  EXPECT_EQ(Format(u"[{0}]", {u"{0}"}), u"[{0}]");
  EXPECT_EQ(Format(u"[{0}]", {u"{0}{0}"}), u"[{0}{0}]");
  // Text put in is scanned for the arguments that follow.
  EXPECT_EQ(Format(u"[{0}]", {u"{1}", u"x"}), u"[x]");
}

TEST(FormatMessage, ChoiceCanHoldALaterPlaceholder) {
  const std::u16string pattern = u"{0} of {1} copied{3,choice,0#|1#\n{4}}.{2}";
  EXPECT_EQ(Format(pattern, {u"3", u"7", u"", u"0", u"skipped: a.txt"}), u"3 of 7 copied.");
  EXPECT_EQ(Format(pattern, {u"3", u"7", u"", u"1", u"skipped: a.txt"}),
            u"3 of 7 copied\nskipped: a.txt.");

  // Before argument 4 arrives, the chosen text still shows its placeholder.
  FormatMessage m(pattern);
  m << u"3" << u"7" << u"!" << u"1";
  EXPECT_EQ(m.Text(), u"3 of 7 copied\n{4}.!");
  m << u"later";
  EXPECT_EQ(m.Text(), u"3 of 7 copied\nlater.!");
}

TEST(FormatMessage, EarlierArgumentsCannotReshapeALaterPlaceholder) {
  // A placeholder of another index is left whole, style included, so text
  // an earlier argument brings cannot split or close it.
  EXPECT_EQ(Format(u"{1,choice,0#[{0}]|1#ok}", {u"x}|1#evil", u"1"}), u"ok");
  EXPECT_EQ(Format(u"{1,choice,0#[{0}]|1#ok}", {u"x}|1#evil", u"0"}), u"[{0}]");
}

TEST(FormatMessage, ChoiceRelations) {
  const std::u16string style = u"0#none|1\u2264one|1<many {1}|-5>very few";
  struct Case {
    const char16_t* arg;
    const char16_t* expected;
  } cases[] = {
      {u"0", u"none"},
      {u"1", u"one"},
      {u"2", u"many x"},
      {u"123456789012", u"many x"},
      {u"-1", u""},  // no alternative matches
      {u"-6", u"very few"},
      {u" 2 ", u"many x"},
      {u"two", u""},  // not a number: nothing matches
      {u"", u""},
      {u"99999999999999999999999", u""},  // beyond 64 bits
  };
  for (const Case& c : cases)
    EXPECT_EQ(Format(u"{0,choice," + style + u"}", {c.arg, u"x"}), c.expected)
        << test_util::Narrow(c.arg);
  // The first matching alternative wins.
  EXPECT_EQ(FormatOne(u"choice", u"0<first|1<second", u"5"), u"first");
  // Malformed alternatives are passed over.
  EXPECT_EQ(FormatOne(u"choice", u"x#bad|1=bad|#bad|1#good", u"1"), u"good");
}

TEST(FormatMessage, ChoiceQuotingAndNesting) {
  const std::u16string q(1, char16_t(0xF800));
  // Inside quotes "|", "," and braces are text; the marks are dropped.
  EXPECT_EQ(FormatOne(u"choice", u"1#a" + q + u"|b, {c" + q + u"|2#d", u"1"), u"a|b, {c");
  EXPECT_EQ(FormatOne(u"choice", u"1#a" + q + u"|b, {c" + q + u"|2#d", u"2"), u"d");
  // A "|" inside a nested placeholder does not split the outer choice.
  EXPECT_EQ(Format(u"{0,choice,1#{1,choice,1#x|2#y}|2#z}", {u"1", u"2"}), u"y");
  EXPECT_EQ(Format(u"{0,choice,1#{1,choice,1#x|2#y}|2#z}", {u"2", u"2"}), u"z");
}

TEST(FormatMessage, Bytesize) {
  ExpectStyled(u"bytesize", {
      {u"0", u"2", u"0 Bytes"},
      {u"1023", u"2", u"1023 Bytes"},
      {u"1024", u"0", u"1 KB"},
      {u"1024", u"2", u"1.00 KB"},
      {u"1024", u"", u"1 KB"},
      {u"1536", u"1", u"1.5 KB"},
      {u"1536", u"0", u"2 KB"},
      {u"2560", u"0", u"2 KB"},  // exact half goes to the even digit
      {u"3584", u"0", u"4 KB"},
      {u"1048575", u"2", u"1024.00 KB"},  // rounds up across the unit
      {u"1048576", u"1", u"1.0 MB"},
      {u"1572864", u"3", u"1.500 MB"},
      {u"1073741824", u"0", u"1 GB"},
      {u"1099511627776", u"2", u"1.00 TB"},
      {u"1125899906842624", u"0", u"1024 TB"},  // no unit above TB
      {u"18446744073709551615", u"1", u"16777216.0 TB"},
      {u"1025", u"3", u"1.001 KB"},
      {u"1025", u"999", u"1.00097656250000000000 KB"},  // decimals capped at 20
      {u"lots", u"2", u"lots"},
      {u"18446744073709551616", u"2", u"18446744073709551616"},
  });
}

TEST(FormatMessage, Currency) {
  ExpectStyled(u"currency", {
      {u"12.3456", u"2", u"12.34"},
      {u"12.3456", u"4", u"12.3456"},
      {u"12.3456", u"9", u"12.3456"},
      {u"12.3456", u"0", u"12.3456"},  // style 0: unchanged
      {u"12", u"2", u"12"},
      {u"1.2.3", u"1", u"1.2"},  // the first "." counts
      {u".5", u"1", u".5"},
      {u"7.25", u"x", u"7.25"},
      {u"7.25", u"99999999999999999999999", u"7.25"},
  });
}

TEST(FormatMessage, NumberHex) {
  ExpectStyled(u"number", {
      {u"0", u"hex", u"0"},
      {u"255", u"hex", u"FF"},
      {u"4294967295", u"hex", u"FFFFFFFF"},
      {u"4886718345", u"hex", u"123456789"},  // 0x123456789
      {u"18446744073709551615", u"hex", u"FFFFFFFFFFFFFFFF"},
      {u"1311768467294899695", u"hex", u"1234567890ABCDEF"},
      // Above 32 bits the halves are printed one after the other, the low
      // one without leading zeros.
      {u"4294967297", u"hex", u"11"},
      {u"255", u"dec", u"255"},
      {u"255", u"", u"255"},
      {u"0xFF", u"hex", u"0xFF"},
      {u"-1", u"hex", u"-1"},
  });
}

TEST(FormatMessage, WhatIsNotAPlaceholderStays) {
  // Each pattern ends in a good "{0}" so that substitution visibly ran.
  const char16_t* kept[] = {
      u"{",
      u"}",
      u"{}",
      u"{x}",
      u"{ 0}",
      u"{-1}",
      u"{0 }",
      u"{4294967296}",
      u"{99999999999999999999999999}",
      u"{0,nosuch}",
      u"{0,nosuch,style}",
      u"{0,choice,1#a,b}",  // a fourth part
      u"{0,choice,1#a",
      u"{0,choice,1#{a}",
  };
  for (const char16_t* k : kept) {
    const std::u16string pattern = std::u16string(u"{0}") + k;
    EXPECT_EQ(Format(pattern, {u"v"}), u"v" + std::u16string(k)) << test_util::Narrow(k);
  }
  // An unterminated placeholder does not hide a good one inside it.
  EXPECT_EQ(Format(u"{0,choice,1#{0}", {u"v"}), u"{0,choice,1#v");
  // Arguments beyond the placeholders are counted and change nothing.
  EXPECT_EQ(Format(u"plain", {u"a", u"b"}), u"plain");
  FormatMessage null(static_cast<const char16_t*>(nullptr));
  null.Add(static_cast<const char16_t*>(nullptr)).Add(static_cast<const char*>(nullptr));
  EXPECT_EQ(null.Text(), u"");
  EXPECT_EQ(null.ArgumentCount(), 2u);
}

TEST(FormatMessage, HostileArgumentsStayBounded) {
  // Arguments that hold placeholders of the next argument multiply the
  // text; it stops growing at the cap and the rest stays unfilled.
  std::u16string ones, twos;
  for (int i = 0; i < 1000; ++i) ones += u"{1}", twos += u"{2}";
  FormatMessage m(u"{0}");
  m << ones << twos;
  EXPECT_LE(m.Text().size(), FormatMessage::kMaxTextUnits);
  EXPECT_GT(m.Text().size(), FormatMessage::kMaxTextUnits - twos.size());
  EXPECT_EQ(m.Text().rfind(u"{2}{2}", 0), 0u);
  EXPECT_EQ(m.Text().substr(m.Text().size() - 3), u"{1}");

  // Many unclosed placeholders, each nested in the one before: every one
  // must be read without rescanning the rest of the text.
  std::u16string unclosed;
  for (int i = 0; i < 60000; ++i) unclosed += u"{1,x";
  FormatMessage n(u"{0}|{1}");
  n << unclosed << u"end";
  EXPECT_EQ(n.Text(), unclosed + u"|end");
}

class Upper : public Fdisk::SubformatBase {
 public:
  void Format(const std::u16string& argument, std::u16string& result,
              const std::u16string& style) const override {
    result = style;
    for (char16_t c : argument) result.push_back(c >= u'a' && c <= u'z' ? c - 32 : c);
  }
};

TEST(FormatMessage, RegisteredSubformatsAnswerTheirName) {
  FormatMessage m(u"{0,upper,>}{1,upper}");
  m.Add(u"abc");
  EXPECT_EQ(m.Text(), u"{0,upper,>}{1,upper}");  // not known yet
  m.Register(u"upper", std::make_unique<Upper>());
  m.Add(u"def");
  EXPECT_EQ(m.Text(), u"{0,upper,>}DEF");
}

TEST(FormatMessage, NarrowArgumentsAreUtf8) {
  EXPECT_EQ(FormatMessage(u"<{0}>").Add("gr\xC3\xBC\xC3\x9F").Text(), u"<gr\u00FC\u00DF>");
}

}  // namespace
