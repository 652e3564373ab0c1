// Text XML: one table per scanner state and per rule.  Every case runs
// twice, once from a stream that hands out everything at once and once
// from one that hands out a byte per call, so no result may depend on
// where the scanner had to refill.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "xml/xml.h"
#include "xml/xml_readers.h"
#include "xml_test_support.h"

using namespace std::string_literals;
using xml_test::Outcome;
using xml_test::Parse;

namespace {

struct Case {
  const char* why;
  std::string input;
  std::string expected;  // Describe() of the tree, or "FAIL"
};

void RunTable(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    EXPECT_EQ(Outcome(c.input), c.expected) << c.why;
    EXPECT_EQ(Outcome(c.input, 1), c.expected) << c.why << " (byte by byte)";
  }
}

const std::string F = "FAIL";

TEST(XmlText, StartOfInput) {
  RunTable({
      {"byte-order mark in front of the root", "\xEF\xBB\xBF<a/>", R"(a[""])"},
      {"the mark is in no text", "\xEF\xBB\xBF<a>x</a>", R"(a["x"])"},
      {"magic behind a mark is text", "\xEF\xBB\xBF" "BXML\x02\x00\x01\x01r\x00\x00\x00"s, F},
      {"a mark alone", "\xEF\xBB\xBF", F},
      {"half a mark", "\xEF\xBB<a/>", F},
      {"a mark later on is text", "<a/>\xEF\xBB\xBF", F},
      {"empty input", "", F},
      {"whitespace only", " \t\r\n  \n", F},
      {"a comment only", "<!-- x -->", F},
      {"blanks and a declaration in front", "\n <?xml version='1.0'?>\r\n\t<a/>", R"(a[""])"},
      {"blanks behind the root", "<a/>\n\n \t", R"(a[""])"},
      {"text in front of the root", "x<a/>", F},
      {"text behind the root", "<a/>x", F},
      {"blank and text behind the root", "<a></a> x", F},
      {"an entity behind the root", "<a/>&amp;", F},
      {"a comment behind the root", "<a/><!-- c -->\n", R"(a[""])"},
      {"a processing instruction behind the root", "<a/><?p?>", R"(a[""])"},
      {"two roots", "<a/><b/>", F},
      {"two roots with a blank between", "<a/> <b/>", F},
      {"end tag without a start", "</a>", F},
      {"stray end tag behind the root", "<a/></a>", F},
      {"unclosed root", "<a>", F},
      {"a zero byte is no end of input", "<a/>\0"s, F},
  });
}

// Blank handling in content, outside xml:space="preserve".
TEST(XmlText, BlanksInContent) {
  RunTable({
      {"leading and trailing blanks dropped", "<a>  x  </a>", R"(a["x"])"},
      {"inner run becomes one blank", "<a>x \t\r\n y</a>", R"(a["x y"])"},
      {"blank in front of a child stays with the parent",
       "<a> x <b/> y </a>", R"(a["x " b[""] " y"])"},
      {"blanks alone between children become one blank",
       "<a>\n  <b>t</b>\n  <c/>\n</a>", R"(a["" b["t"] " " c[""] ""])"},
      {"blanks round a lone child vanish", "<a> <b/> </a>", R"(a["" b[""] ""])"},
      {"no blank, no blank", "<a>x<b/>y</a>", R"(a["x" b[""] "y"])"},
      {"a comment splits nothing", "<a>x<!-- c -->y</a>", R"(a["xy"])"},
      {"a comment between blanks leaves one", "<a>x <!-- c --> y</a>", R"(a["x y"])"},
      {"blanks next to an entity", "<a>x &amp; y</a>", R"(a["x & y"])"},
      {"no blank next to an entity", "<a>x&amp;y</a>", R"(a["x&y"])"},
      {"entities are never dropped", "<a>&#32;x&#32;&#9;</a>", R"(a[" x \t"])"},
      {"blank before CDATA is its own text", "<a>x <![CDATA[ c ]]> y</a>", R"(a["x  c  y"])"},
      {"blank after CDATA is pending", "<a><![CDATA[c]]> </a>", R"(a["c"])"},
      {"empty element", "<a></a>", R"(a[""])"},
      {"text in a child", "<a><b> in </b></a>", R"(a["" b["in"] ""])"},
      {"greater-than in text", "<a>x > y ]]> z</a>", R"(a["x > y ]]> z"])"},
  });
}

TEST(XmlText, TokensAroundAPendingBlank) {
  // The blank in front of a start tag comes as a token of its own, and the
  // tag is read again afterwards.
  xml_test::TestStream s("<a k = 'v  w'>x <b/></a>");
  XmlTokenizer t(s);
  std::string seen;
  for (int guard = 0; guard < 40; ++guard) {
    const int k = t.Next();
    switch (k) {
      case XmlTokenizer::kStartTag: seen += "<" + t.name; break;
      case XmlTokenizer::kEndTag: seen += "</" + t.name; break;
      case XmlTokenizer::kAttributeName: seen += "@" + t.name; break;
      case XmlTokenizer::kAttributeEquals: seen += "="; break;
      case XmlTokenizer::kTagClose: seen += ">"; break;
      case XmlTokenizer::kEmptyTagClose: seen += "/>"; break;
      case XmlTokenizer::kText: seen += xml_test::Quote(t.value); break;
      case XmlTokenizer::kEnd: seen += "$"; break;
      default: seen += "?" + std::to_string(k); break;
    }
    if (k == XmlTokenizer::kEnd || k == XmlTokenizer::kError) break;
    seen += " ";
  }
  EXPECT_EQ(seen, R"(<a @k = "v" " w" > "x" " " <b /> </a > $)");
}

TEST(XmlText, TokenizerErrorsAreFinal) {
  xml_test::TestStream s("<a>&bogus;<b/></a>");
  XmlTokenizer t(s);
  EXPECT_EQ(t.Next(), XmlTokenizer::kStartTag);
  EXPECT_EQ(t.Next(), XmlTokenizer::kTagClose);
  EXPECT_EQ(t.Next(), XmlTokenizer::kError);
  EXPECT_EQ(t.Next(), XmlTokenizer::kError);
  EXPECT_EQ(t.Next(), XmlTokenizer::kError);
}

TEST(XmlText, MagicIsATokenOnlyAtTheStart) {
  xml_test::TestStream s("BXML\x02");
  XmlTokenizer t(s);
  EXPECT_EQ(t.Next(), XmlTokenizer::kMagic);
  EXPECT_EQ(s.Position(), 4u);  // the version byte is left to the binary reader
}

TEST(XmlText, Tags) {
  RunTable({
      {"blanks around =", "<a Key = 'a'/>", R"(a{Key="a"}[""])"},
      {"every whitespace around =", "<a\tk\n=\r\"v\"\t/>", R"(a{k="v"}[""])"},
      {"double quotes", R"(<a k="v"></a>)", R"(a{k="v"}[""])"},
      {"blank inside an end tag", "<a></a \n>", R"(a[""])"},
      {"attributes need no blank between them", "<a k='v'm='w'/>", R"(a{k="v",m="w"}[""])"},
      {"name characters", "<a:b-c.d_e9 _x='1' :y='2'/>", R"(a:b-c.d_e9{:y="2",_x="1"}[""])"},
      {"names are case-sensitive", "<a k='1' K='2'/>", R"(a{K="2",k="1"}[""])"},
      {"duplicate attribute", "<a k='1' k='2'/>", F},
      {"duplicate attribute, other quotes", "<a k='1' k=\"1\"></a>", F},
      {"attribute without value", "<a k/>", F},
      {"attribute without name", "<a =''/>", F},
      {"unquoted value", "<a k=v/>", F},
      {"slash apart from >", "<a / >", F},
      {"name starting with a digit", "<1a/>", F},
      {"name starting with -", "<-a/>", F},
      {"blank after <", "< a/>", F},
      {"attribute name starting with a digit", "<a 1k='v'/>", F},
      {"non-ASCII letters end a name", "<a\xC3\xA9/>", F},
      {"non-ASCII name start", "<\xC3\xA9/>", F},
      {"mismatched end tag", "<a></b>", F},
      {"end tag differs in case", "<a></A>", F},
      {"end tag with an attribute", "<a></a k='v'>", F},
      {"end tag without name", "<a></>", F},
      {"end tag cut off", "<a></a", F},
      {"start tag cut off", "<a k='v'", F},
      {"< in a tag", "<a<b/>", F},
      {"end tags match byte for byte", "<a><b><c></c></b></a>",
       R"(a["" b["" c[""] ""] ""])"},
      {"inner mismatch", "<a><b></a></b>", F},
  });
}

TEST(XmlText, AttributeValues) {
  RunTable({
      {"blanks dropped and joined", "<a k='  x \t y  '/>", R"(a{k="x y"}[""])"},
      {"whitespace only", "<a k=' \n '/>", R"(a{k=""}[""])"},
      {"empty", "<a k=''/>", R"(a{k=""}[""])"},
      {"entities", "<a k='&lt;&gt;&quot;&apos;&amp;'/>", R"(a{k="<>\"'&"}[""])"},
      {"entity joined to text", "<a k='x&amp;y'/>", R"(a{k="x&y"}[""])"},
      {"entity keeps its blank", "<a k='x &#10; y'/>", R"(a{k="x \n y"}[""])"},
      {"greater-than", "<a k='a>b'/>", R"(a{k="a>b"}[""])"},
      {"other quote inside", R"(<a k="it's" m='say "hi"'/>)", R"(a{k="it's",m="say \"hi\""}[""])"},
      {"less-than", "<a k='a<b'/>", F},
      {"cut off", "<a k='abc", F},
      {"control character", "<a k='\x01'/>", F},
      {"bad UTF-8", "<a k='\xC0\xAF'/>", F},
  });
}

TEST(XmlText, Entities) {
  const auto in = [](const std::string& e) { return "<a>" + e + "</a>"; };
  RunTable({
      {"decimal", in("&#65;"), R"(a["A"])"},
      {"leading zeros", in("&#0065;&#x00000041;"), R"(a["AA"])"},
      {"hex, lower case", in("&#x4a;"), R"(a["J"])"},
      {"hex, upper case digits", in("&#x4A;"), R"(a["J"])"},
      {"highest code point", in("&#x10FFFF;"), R"(a["\udbff\udfff"])"},
      {"highest code point, decimal", in("&#1114111;"), R"(a["\udbff\udfff"])"},
      {"astral plane", in("&#x1F600;"), R"(a["\ud83d\ude00"])"},
      {"only the range is checked", in("&#xD800;&#xFFFF;"), R"(a["\ud800\uffff"])"},
      {"above the range", in("&#x110000;"), F},
      {"above the range, decimal", in("&#1114112;"), F},
      {"far above the range", in("&#99999999999999999999999;"), F},
      {"upper-case X", in("&#X41;"), F},
      {"no digits", in("&#;"), F},
      {"no hex digits", in("&#x;"), F},
      {"bad hex digit", in("&#x4g;"), F},
      {"no semicolon", in("&#65 "), F},
      {"named ones", in("&amp;&apos;&gt;&lt;&quot;"), R"(a["&'><\""])"},
      {"names are case-sensitive", in("&AMP;"), F},
      {"unknown name", in("&nbsp;"), F},
      {"longer name", in("&ampx;"), F},
      {"name without semicolon", in("&amp "), F},
      {"lone ampersand", in("& "), F},
      {"ampersand at the end", "<a>&", F},
  });
}

// Well-formed UTF-8 in content, attribute values and CDATA alike.
TEST(XmlText, Utf8Accepted) {
  const std::vector<std::pair<std::string, std::string>> good = {
      {"\xC2\xA9", R"("\u00a9")"},
      {"\xE2\x82\xAC", R"("\u20ac")"},
      {"\xED\x9F\xBF", R"("\ud7ff")"},
      {"\xEE\x80\x80", R"("\ue000")"},
      {"\xEF\xBF\xBD", R"("\ufffd")"},
      {"\xEF\xB7\x90", R"("\ufdd0")"},
      {"\xF0\x9F\x98\x80", R"("\ud83d\ude00")"},
      {"\xF4\x8F\xBF\xBF", R"("\udbff\udfff")"},
      {"\x7F", R"("\u007f")"},
  };
  for (const auto& [bytes, quoted] : good) {
    RunTable({
        {"content", "<a>" + bytes + "</a>", "a[" + quoted + "]"},
        {"attribute", "<a k='" + bytes + "'/>", "a{k=" + quoted + "}[\"\"]"},
        {"CDATA", "<a><![CDATA[" + bytes + "]]></a>", "a[" + quoted + "]"},
    });
  }
}

TEST(XmlText, Utf8Refused) {
  const std::vector<std::string> bad = {
      "\xC0\xAF",          // overlong, lead C0
      "\xC1\xBF",          // overlong, lead C1
      "\xE0\x9F\xBF",      // overlong three bytes
      "\xF0\x8F\xBF\xBF",  // overlong four bytes
      "\xF4\x90\x80\x80",  // above 0x10FFFF
      "\xF5\x80\x80\x80",  // lead above F4
      "\xFE",
      "\xFF",
      "\xED\xA0\x80",  // high surrogate
      "\xED\xBF\xBF",  // low surrogate
      "\xEF\xBF\xBE",  // noncharacter
      "\xEF\xBF\xBF",  // noncharacter
      "\x80",          // lone continuation
      "\xC2\x41",      // bad continuation
      "\xE2\x82",      // cut short by markup
      "\xF0\x9F\x98",
  };
  for (const std::string& bytes : bad) {
    RunTable({
        {"content", "<a>" + bytes + "</a>", F},
        {"attribute", "<a k='" + bytes + "'/>", F},
        {"CDATA", "<a><![CDATA[" + bytes + "]]></a>", F},
    });
  }
}

TEST(XmlText, ControlCharacters) {
  for (int c = 0; c < 32; ++c) {
    const std::string ch(1, static_cast<char>(c));
    const bool blank = c == 9 || c == 10 || c == 13;
    SCOPED_TRACE("character " + std::to_string(c));
    EXPECT_EQ(Outcome("<a>x" + ch + "y</a>") == F, !blank);
    EXPECT_EQ(Outcome("<a k='x" + ch + "y'/>") == F, !blank);
    EXPECT_EQ(Outcome("<a><![CDATA[x" + ch + "y]]></a>") == F, !blank);
    EXPECT_EQ(Outcome("<a><!-- x" + ch + "y --></a>") == F, !blank);
    // Processing instructions and DOCTYPE are skipped unread.
    EXPECT_EQ(Outcome("<a><?p x" + ch + "y?></a>"), R"(a[""])");
    EXPECT_EQ(Outcome("<!DOCTYPE a" + ch + "><a/>"), R"(a[""])");
  }
}

TEST(XmlText, Cdata) {
  RunTable({
      {"plain", "<a><![CDATA[x]]></a>", R"(a["x"])"},
      {"markup and entities are text", "<a><![CDATA[ <b>&amp; ]]></a>", R"(a[" <b>&amp; "])"},
      {"carriage returns dropped", "<a><![CDATA[a\r\nb\rc]]></a>", R"(a["a\nbc"])"},
      {"tabs and line feeds kept", "<a><![CDATA[\tx\n]]></a>", R"(a["\tx\n"])"},
      {"empty", "<a><![CDATA[]]></a>", R"(a[""])"},
      {"brackets before the end", "<a><![CDATA[]]]]></a>", R"(a["]]"])"},
      {"joined with text", "<a>x<![CDATA[y]]>z</a>", R"(a["xyz"])"},
      {"blanks round it", "<a> x <![CDATA[y]]> </a>", R"(a["x y"])"},
      {"never closed", "<a><![CDATA[x]]</a>", F},
      {"lower case keyword", "<a><![cdata[x]]></a>", F},
      {"keyword cut short", "<a><![CDATA x]]></a>", F},
      {"before the root", "<![CDATA[x]]><a/>", F},
  });
}

TEST(XmlText, Comments) {
  RunTable({
      {"empty comment", "<a>x<!---->y</a>", R"(a["xy"])"},
      {"two dashes inside", "<a><!-- a -- b --></a>", R"(a[""])"},
      {"three dashes at the end", "<a><!-- x --->y</a>", R"(a["y"])"},
      {"markup inside", "<a><!-- <b> &bogus; --></a>", R"(a[""])"},
      {"starts with >", "<a><!-->--></a>", R"(a[""])"},
      {"whitespace inside", "<a><!--\t\r\n--></a>", R"(a[""])"},
      {"-- > does not end it", "<a><!-- x -- ></a>", F},
      {"never closed", "<a><!-- x", F},
      {"one dash", "<a><!- x --></a>", F},
      {"around the root", "<!-- c --><a/><!-- d -->", R"(a[""])"},
  });
}

TEST(XmlText, ProcessingInstructions) {
  RunTable({
      {"declared encoding ignored", "<?xml version='1.0' encoding='latin1'?><a>\xC3\xA9</a>",
       R"(a["\u00e9"])"},
      {"inside text", "<a>x<?p y?>z</a>", R"(a["xz"])"},
      {"question mark inside", "<a><?p ? > ?></a>", R"(a[""])"},
      {"empty", "<?" "?><a/>", R"(a[""])"},
      {"never closed", "<?p <a/>", F},
  });
}

TEST(XmlText, Doctype) {
  RunTable({
      {"plain", "<!DOCTYPE a><a/>", R"(a[""])"},
      {"external id", "<!DOCTYPE a SYSTEM 'a.dtd'>\n<a/>", R"(a[""])"},
      {"line feed after the keyword", "<!DOCTYPE\na><a/>", R"(a[""])"},
      {"internal subset", "<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>", F},
      {"even an empty one", "<!DOCTYPE a []><a/>", F},
      {"no blank after the keyword", "<!DOCTYPEa><a/>", F},
      {"lower case", "<!doctype a><a/>", F},
      {"never closed", "<!DOCTYPE a", F},
      {"other declaration", "<!ELEMENT a><a/>", F},
      {"bare <!", "<!><a/>", F},
  });
}

TEST(XmlText, PreserveSpace) {
  RunTable({
      {"text kept as it stands", "<a xml:space='preserve'>  x \r\n <b/>  </a>",
       R"(a{xml:space="preserve"}["  x \r\n " b[""] "  "])"},
      {"inherited by children and their attributes",
       "<r xml:space='preserve'><a k=' v '> x </a></r>",
       R"(r{xml:space="preserve"}["" a{k=" v "}[" x "] ""])"},
      {"an inner default does not switch it off",
       "<r xml:space='preserve'><a xml:space='default'> x </a></r>",
       R"(r{xml:space="preserve"}["" a{xml:space="default"}[" x "] ""])"},
      {"value after blank handling", "<a xml:space=' preserve '> x </a>",
       R"(a{xml:space="preserve"}[" x "])"},
      {"other values do nothing", "<a xml:space='Preserve'> x </a>",
       R"(a{xml:space="Preserve"}["x"])"},
      {"attributes in front are read before it",
       "<a k=' 1 ' xml:space='preserve' z=' 2 '/>",
       R"(a{k="1",xml:space="preserve",z=" 2 "}[""])"},
      {"a sibling behind it is back to normal",
       "<r><a xml:space='preserve'/><b> x </b></r>",
       R"(r["" a{xml:space="preserve"}[""] "" b["x"] ""])"},
      // The token behind a preserving element's end tag is read before the
      // parent restores its own setting, so it is kept as it stands.
      {"the token behind its end tag is still preserved",
       "<r><a xml:space='preserve'> x <b> y </b></a> z </r>",
       R"(r["" a{xml:space="preserve"}[" x " b[" y "] ""] " z "])"},
      {"and so is a blank behind the root", "<r xml:space='preserve'/>\n", F},
      {"the root without anything behind it", "<r xml:space='preserve'> x </r>",
       R"(r{xml:space="preserve"}[" x "])"},
  });
}

TEST(XmlText, NestingIsBounded) {
  const auto nested = [](size_t levels) {
    std::string s;
    for (size_t i = 0; i < levels; ++i) s += "<e>";
    for (size_t i = 0; i < levels; ++i) s += "</e>";
    return s;
  };
  EXPECT_TRUE(Parse(nested(kXmlMaxDepth)).ok);
  EXPECT_FALSE(Parse(nested(kXmlMaxDepth + 1)).ok);
  // Far beyond: refused without exhausting the stack.
  std::string deep;
  for (int i = 0; i < 200000; ++i) deep += "<e>";
  EXPECT_FALSE(Parse(deep).ok);
}

TEST(XmlText, WherePositionsPoint) {
  struct Where {
    const char* why;
    std::string input;
    bool ok;
    int line, column;
  };
  const Where cases[] = {
      {"mismatched end tag", "<a>\n  <b></c></a>", false, 2, 6},
      {"bad entity points at its &", "<a>\t&bogus;</a>", false, 1, 9},
      {"so does one out of range", "<a>x &#x110000;</a>", false, 1, 6},
      {"characters count once", "<a>\xC3\xA9\x01</a>", false, 1, 5},
      {"tabs to multiples of 8", "\t<a>x\x01</a>", false, 1, 13},
      {"tab after a column", "<a> \t\t\x01</a>", false, 1, 17},
      {"lines from 1", "<a>\n\n x\x01</a>", false, 3, 3},
      {"a mark takes no column", "\xEF\xBB\xBF<a>\x01</a>", false, 1, 4},
      {"success: the end of input", "<a/>\n", true, 2, 1},
      {"binary: at the magic", "BXML\x03\x00"s, false, 1, 1},
  };
  for (const Where& w : cases) {
    xml_test::Result r = Parse(w.input);
    EXPECT_EQ(r.ok, w.ok) << w.why;
    EXPECT_EQ(r.line, w.line) << w.why;
    EXPECT_EQ(r.column, w.column) << w.why;
  }
}

TEST(XmlText, ReadsFourBytesThenBlocks) {
  std::string doc = "<a>";
  doc += std::string(100000, 'x');
  doc += "</a>";
  xml_test::TestStream s(doc);
  std::unique_ptr<XmlElement> root;
  int line, column;
  ASSERT_TRUE(ReadXml(root, s, line, column));
  EXPECT_EQ(root->GetFirstText().size(), 100000u);
  ASSERT_GE(s.requests.size(), 3u);
  EXPECT_EQ(s.requests[0], 4u);
  for (size_t i = 1; i < s.requests.size(); ++i) EXPECT_EQ(s.requests[i], 32768u) << i;
}

TEST(XmlText, StreamFailureFailsTheParse) {
  const std::string doc = "<a><b k='v'>text</b></a>\n";
  // Whatever byte the stream fails at, nothing succeeds - even when the
  // failure comes after the last byte of the root.
  for (size_t cut = 0; cut <= doc.size(); ++cut) {
    xml_test::TestStream s(doc, SIZE_MAX, cut);
    std::unique_ptr<XmlElement> root;
    int line, column;
    EXPECT_FALSE(ReadXml(root, s, line, column)) << cut;
  }
  // And every cut-off prefix fails as a document.
  for (size_t cut = 0; cut + 1 < doc.size(); ++cut) EXPECT_EQ(Outcome(doc.substr(0, cut)), F) << cut;
}

TEST(XmlText, OldTreeIsReplaced) {
  std::unique_ptr<XmlElement> root = std::make_unique<XmlElement>("old");
  root->AddChild("child");
  xml_test::TestStream s("<new/>");
  int line, column;
  ASSERT_TRUE(ReadXml(root, s, line, column));
  EXPECT_EQ(xml_test::Describe(*root), R"(new[""])");

  xml_test::TestStream bad("garbage");
  EXPECT_FALSE(ReadXml(root, bad, line, column));
  EXPECT_EQ(root, nullptr);
}

TEST(XmlText, ConfigurationLikeDocument) {
  const std::string doc =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<!-- rescue media -->\r\n"
      "<Config>\r\n"
      "  <Menu>\r\n"
      "    <Topic Text=\"Rescue &amp; restore\" Delay=\"10\"/>\r\n"
      "    <Entry Key=\"F1\" Default=\"\">\r\n"
      "      <Text>Start   the\r\n   system</Text>\r\n"
      "      <LoadKernel><Kernel Path=\"\\boot\\vmlinuz\" Arguments=\"quiet  vga=791\"/></LoadKernel>\r\n"
      "    </Entry>\r\n"
      "  </Menu>\r\n"
      "  <Jobs><RemoveFakeBootNext/></Jobs>\r\n"
      "</Config>\r\n";
  xml_test::TestStream s(doc, 7);
  std::unique_ptr<XmlElement> root;
  int line, column;
  ASSERT_TRUE(ReadXml(root, s, line, column));
  const XmlElement* menu = root->FindChild("Menu");
  ASSERT_NE(menu, nullptr);
  EXPECT_EQ(menu->FindChild("Topic")->GetAttribute("Text", u""), u"Rescue & restore");
  const XmlElement* entry = menu->FindChild("Entry");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->FindChild("Text")->GetFirstText(), u"Start the system");
  EXPECT_EQ(entry->FindChild("LoadKernel")->FindChild("Kernel")->GetAttribute("Arguments", u""),
            u"quiet vga=791");
  EXPECT_EQ(root->GetChild(0), menu);
  EXPECT_EQ(root->GetChild(1)->name, "Jobs");
  EXPECT_EQ(root->texts, (std::vector<std::u16string>{u"", u" ", u""}));
}

}  // namespace
