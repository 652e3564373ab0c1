// The binary forms: hand-made files for the rules and the damage, the
// writer's output for the round trips.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/error_codes.h"
#include "xml/bxml_writer.h"
#include "xml/xml.h"
#include "xml/xml_readers.h"
#include "xml_test_support.h"

using namespace std::string_literals;
using xml_test::Describe;
using xml_test::Outcome;
using xml_test::Parse;

namespace {

constexpr uint32_t kEndOfFile = 0x40002;
constexpr uint32_t kCorrupted = 0x4000D;

// Version 2: string references, a repeated attribute, a raw data item, a
// length with its unused low bit set, and a text cut at a zero byte.
const std::string kV2 =
    "BXML\x02\xFF"                 // version 2; the sixth byte means nothing
    "\x01\x01r"                    // element: new string 1 "r"
    "\x02\x01k\x05vw"              // attribute: new string 2 "k", 5>>1 = 2 bytes
    "\x02\x04xx"                   // "k" again: dropped
    "\x00"                         // end of attributes
    "\x04hi"                       // text "hi"
    "\x03\x01" "c\x00\x00\x00"     // child: new string 3 "c", no attributes, "", none
    "\x05\xFF\x00"                 // raw data item, two bytes: not a text
    "\x01\x00\x00\x00"             // child: string 1 again
    "\x0A" "e\xC3(\x00q"           // text of 5 bytes: bad sequence, then a zero
    "\x00"s;                       // no further child
const char* const kV2Tree = R"(r{k="vw"}["hi" c[""] "" r[""] "e\ufffd("])";

// Version 1: counted attributes and text items; identifier 0 is a name
// like any other.
const std::string kV1 =
    "BXML\x01\x00"
    "\x00\x01r"           // element: new string 0 "r"
    "\x02"                // two attributes
    "\x01\x01k\x02vw"     // new string 1 "k", value "vw"
    "\x01\x01x"           // "k" again: dropped
    "\x03"                // three text items
    "\x02hi"              // "hi"
    "\x02\x01" "c\x00\x01\x00"  // child: new string 2 "c", no attributes, one empty text
    "\x00"                // ""
    "\x00\x00\x01\x00"    // child: string 0, no attributes, one empty text
    "\x02" "e\xFF"s;      // "e" and a bad byte
const char* const kV1Tree = R"(r{k="vw"}["hi" c[""] "" r[""] "e\ufffd"])";

TEST(XmlBinary, Version2Rules) { EXPECT_EQ(Outcome(kV2), kV2Tree); }

TEST(XmlBinary, Version1Rules) { EXPECT_EQ(Outcome(kV1), kV1Tree); }

// The events the readers send, with the raw data that the tree builder
// throws away.
class Recorder : public xml_reader_interface {
 public:
  void StartDocument() override { log += "D "; }
  void EndDocument() override { log += "/D"; }
  void StartElement(const std::string& name) override { log += "<" + name + " "; }
  void EndElement() override { log += "> "; }
  void Attribute(const std::string& name, const std::u16string& value) override {
    log += "@" + name + "=" + xml_test::Quote(value) + " ";
  }
  void Text(const std::u16string& value) override { log += xml_test::Quote(value) + " "; }
  void Data(const std::string& bytes) override {
    log += "data" + std::to_string(bytes.size()) + ":";
    for (unsigned char c : bytes) log += std::to_string(c) + ",";
    log += " ";
  }
  std::string log;
};

TEST(XmlBinary, EventsInDocumentOrder) {
  xml_test::TestStream s(kV2);
  char header[6];
  s.Read(header, 6);
  Recorder events;
  xml_reader_binary_new reader(s, events);
  events.StartDocument();
  EXPECT_TRUE(reader.Read());
  events.EndDocument();
  EXPECT_EQ(events.log,
            R"(D <r @k="vw" @k="xx" "hi" <c "" > data2:255,0, <r "" > "e\ufffd(" > /D)");
  EXPECT_FALSE(s.HasError());

  xml_test::TestStream s1(kV1);
  s1.Read(header, 6);
  Recorder events1;
  xml_reader_binary_old reader1(s1, events1);
  EXPECT_TRUE(reader1.Read());
  EXPECT_EQ(events1.log, R"(<r @k="vw" @k="x" "hi" <c "" > "" <r "" > "e\ufffd" > )");
}

TEST(XmlBinary, VersionByte) {
  const std::string body = "\x00\x01\x01r\x00\x00\x00"s;  // a version 2 root
  EXPECT_EQ(Outcome("BXML\x02"s + body), R"(r[""])");
  for (int v : {0, 3, 4, 0x7F, 0x81, 0xFF}) {
    std::string doc = "BXML";
    doc.push_back(static_cast<char>(v));
    EXPECT_EQ(Outcome(doc + body), "FAIL") << v;
  }
  // Version 1 reads the same bytes differently and finds no text item.
  xml_test::Result r = Parse("BXML\x01"s + body);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.streamError, kCorrupted);
}

TEST(XmlBinary, EveryTruncationFailsByTheStream) {
  for (const std::string* doc : {&kV1, &kV2}) {
    ASSERT_TRUE(Parse(*doc).ok);
    for (size_t cut = 0; cut < doc->size(); ++cut) {
      xml_test::Result r = Parse(doc->substr(0, cut));
      EXPECT_FALSE(r.ok) << cut;
      // Below 4 bytes there is no magic, and the text scanner refuses it.
      if (cut >= 4) EXPECT_EQ(r.streamError, kEndOfFile) << cut;
    }
  }
}

TEST(XmlBinary, HugeLengthsFailOnTheShortRead) {
  // Lengths of about 4 GiB with a few bytes behind them, in every place a
  // length stands.  The reader must run out of input, not of memory.
  const std::vector<std::pair<const char*, std::string>> docs = {
      {"name", "BXML\x02\x00\x01\xFF\xFF\xFF\xFF\x0Fr"s},
      {"attribute value", "BXML\x02\x00\x01\x01r\x02\x01k\xFE\xFF\xFF\xFF\x0Fv"s},
      {"text", "BXML\x02\x00\x01\x01r\x00\xFE\xFF\xFF\xFF\x0Ft"s},
      {"raw data", "BXML\x02\x00\x01\x01r\x00\xFF\xFF\xFF\xFF\x0F\x01"s},
      {"version 1 text", "BXML\x01\x00\x01\x01r\x00\x01\xFF\xFF\xFF\xFF\x0Ft"s},
      {"version 1 text items", "BXML\x01\x00\x01\x01r\x00\xFF\xFF\xFF\xFF\x0F\x00"s},
  };
  for (const auto& [why, doc] : docs) {
    xml_test::TestStream s(doc);
    std::unique_ptr<XmlElement> root;
    int line, column;
    EXPECT_FALSE(ReadXml(root, s, line, column)) << why;
    EXPECT_EQ(s.GetError().Code(), kEndOfFile) << why;
    for (uint64_t request : s.requests) EXPECT_LE(request, 65536u) << why;
  }
}

TEST(XmlBinary, Varints) {
  // Five bytes carry the top bits of a 32-bit identifier.
  EXPECT_EQ(Outcome("BXML\x02\x00\xFF\xFF\xFF\xFF\x0F\x01r\x00\x00\x00"s), R"(r[""])");
  // Padded groups are still the same number: string 1 is referred to.
  EXPECT_EQ(Outcome("BXML\x02\x00\x01\x01r\x00\x00\x81\x80\x80\x80\x00\x00\x00\x00\x00\x00"s),
            R"(r["" r[""] ""])");
  // A sixth byte does not fit.
  xml_test::Result r = Parse("BXML\x02\x00\x80\x80\x80\x80\x80\x01\x01r\x00\x00\x00"s);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.streamError, kCorrupted);
}

TEST(XmlBinary, MalformedStructures) {
  // A version 2 document without a root element.
  xml_test::Result empty = Parse("BXML\x02\x00\x00"s);
  EXPECT_FALSE(empty.ok);
  EXPECT_EQ(empty.tree, "");
  // Version 1 with no text item at all.
  xml_test::Result noText = Parse("BXML\x01\x00\x00\x01r\x00\x00"s);
  EXPECT_FALSE(noText.ok);
  EXPECT_EQ(noText.streamError, kCorrupted);
  // A reference to an identifier never defined reads a length and bytes,
  // which here are missing.
  EXPECT_EQ(Parse("BXML\x02\x00\x07"s).streamError, kEndOfFile);
  // Bytes behind the root are not looked at.
  EXPECT_EQ(Outcome("BXML\x02\x00\x01\x01r\x00\x00\x00garbage"s), R"(r[""])");
}

TEST(XmlBinary, NestingIsBounded) {
  const auto nested = [](size_t levels) {
    std::string doc = "BXML\x02\x00\x01\x01" "e\x00\x00"s;  // root, no attributes, ""
    for (size_t i = 1; i < levels; ++i) doc += "\x01\x00\x00"s;
    for (size_t i = 0; i < levels; ++i) doc += "\x00\x00"s;  // no child; text ""
    doc.pop_back();  // the root has no text behind it
    return doc;
  };
  EXPECT_TRUE(Parse(nested(3)).ok);
  EXPECT_TRUE(Parse(nested(kXmlMaxDepth)).ok);
  xml_test::Result over = Parse(nested(kXmlMaxDepth + 1));
  EXPECT_FALSE(over.ok);
  EXPECT_EQ(over.streamError, kCorrupted);
  EXPECT_FALSE(Parse(nested(100000)).ok);

  std::string v1 = "BXML\x01\x00\x00\x01" "e\x00\x02\x00"s;
  for (int i = 0; i < 100000; ++i) v1 += "\x00\x00\x02\x00"s;
  EXPECT_EQ(Parse(v1).streamError, kCorrupted);
}

TEST(XmlBinary, BinaryAttributesMayRepeat) {
  // Text XML refuses a repeated name; the binary form keeps the first.
  EXPECT_EQ(Outcome("<r k='1' k='2'/>"), "FAIL");
  EXPECT_EQ(Outcome("BXML\x02\x00\x01\x01r\x02\x01k\x02" "1\x02\x02" "2\x00\x00\x00"s),
            R"(r{k="1"}[""])");
}

TEST(XmlBinary, BinaryReadingStartsAtTheFifthByte) {
  // The text scanner took the magic alone: its first request was 4 bytes,
  // the next one is the binary reader's.
  xml_test::TestStream s(kV2);
  std::unique_ptr<XmlElement> root;
  int line, column;
  ASSERT_TRUE(ReadXml(root, s, line, column));
  ASSERT_GE(s.requests.size(), 2u);
  EXPECT_EQ(s.requests[0], 4u);
  EXPECT_EQ(s.requests[1], 2u);
}

// --- the writer --------------------------------------------------------

std::unique_ptr<XmlElement> TextTree(const std::string& text) {
  auto root = xml_test::ParseTree(text);
  EXPECT_TRUE(root) << text;
  return root ? std::move(root) : std::make_unique<XmlElement>("");
}

TEST(XmlBinaryWriter, ExactBytes) {
  auto tree = TextTree("<a k='v'>x<a/></a>");
  std::string v2, v1;
  ASSERT_TRUE(WriteBinaryXml(*tree, 2, v2).IsSuccess());
  ASSERT_TRUE(WriteBinaryXml(*tree, 1, v1).IsSuccess());
  EXPECT_EQ(v2, "BXML\x02\x00" "\x01\x01" "a" "\x02\x01k\x02v" "\x00" "\x02x"
                "\x01\x00\x00\x00" "\x00" "\x00"s);
  EXPECT_EQ(v1, "BXML\x01\x00" "\x00\x01" "a" "\x01" "\x01\x01k\x01v" "\x02" "\x01x"
                "\x00\x00\x01\x00" "\x00"s);
}

TEST(XmlBinaryWriter, RoundTripsGiveTheTextTree) {
  const std::vector<std::string> docs = {
      "<a/>",
      "<Config>\n <Menu><Topic Text='Rescue &amp; restore' Delay='5'/>\n"
      "  <Entry Key='F1' Default=''><Text>Start</Text><Chainload Executable='\\x.efi'/></Entry>"
      "</Menu>\n <Jobs><Rename FileNameSource='a' FileNameTarget='b'/></Jobs></Config>",
      "<r>t0<a/>t1<b k='1' m='2' z=''>in<c/></b>t2</r>",
      "<r xml:space='preserve'>  spaced  <x> y </x>\r\n</r>",
      "<r a='&#x10FFFF;' b='\xE2\x82\xAC'>&#x1F600; \xC3\xA9 &#xFFFF; <![CDATA[<&>]]></r>",
      "<r><r><r><r>deep</r></r></r></r>",
      "<r><a/><a/><a/><a/><a/></r>",
  };
  for (const std::string& doc : docs) {
    auto tree = TextTree(doc);
    ASSERT_TRUE(tree);
    const std::string expected = Describe(*tree);
    for (int version : {1, 2}) {
      std::string bytes;
      ASSERT_TRUE(WriteBinaryXml(*tree, version, bytes).IsSuccess()) << doc;
      EXPECT_EQ(Outcome(bytes), expected) << "version " << version << ": " << doc;
    }
  }
}

TEST(XmlBinaryWriter, SameXmlTreeSeesEveryDifference) {
  const std::string base = "<r k='v'>a<c/>b</r>";
  EXPECT_TRUE(SameXmlTree(*TextTree(base), *TextTree(base)));
  for (const char* other : {"<s k='v'>a<c/>b</s>", "<r k='w'>a<c/>b</r>", "<r j='v'>a<c/>b</r>",
                            "<r k='v'>a<d/>b</r>", "<r k='v'><c/>ab</r>", "<r k='v'>a<c/><c/>b</r>",
                            "<r k='v'>a<c>x</c>b</r>", "<r k='v' m=''>a<c/>b</r>"}) {
    EXPECT_FALSE(SameXmlTree(*TextTree(base), *TextTree(other))) << other;
    EXPECT_FALSE(SameXmlTree(*TextTree(other), *TextTree(base))) << other;
  }
}

TEST(XmlBinaryWriter, RefusesWhatCannotComeBack) {
  std::string out;
  EXPECT_TRUE(WriteBinaryXml(*TextTree("<a>&#0;</a>"), 2, out).IsError());
  EXPECT_TRUE(WriteBinaryXml(*TextTree("<a k='&#xD800;'/>"), 2, out).IsError());
  EXPECT_TRUE(WriteBinaryXml(*TextTree("<a>&#xDC00;&#xD800;</a>"), 1, out).IsError());
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(WriteBinaryXml(*TextTree("<a/>"), 3, out).IsError());

  XmlElement many("m");
  for (int i = 0; i < 256; ++i) many.attributes["k" + std::to_string(i)] = u"v";
  EXPECT_TRUE(WriteBinaryXml(many, 1, out).IsError());
  ASSERT_TRUE(WriteBinaryXml(many, 2, out).IsSuccess());
  EXPECT_EQ(Outcome(out), Describe(many));
  many.attributes.erase("k0");
  ASSERT_TRUE(WriteBinaryXml(many, 1, out).IsSuccess());
  EXPECT_EQ(Outcome(out), Describe(many));

  XmlElement deep("d");
  XmlElement* e = &deep;
  for (unsigned i = 1; i < kXmlMaxDepth; ++i) e = e->AddChild("d");
  EXPECT_TRUE(WriteBinaryXml(deep, 2, out).IsSuccess());
  e->AddChild("d");
  EXPECT_TRUE(WriteBinaryXml(deep, 2, out).IsError());

  XmlElement broken("b");
  broken.texts.push_back(u"extra");
  EXPECT_TRUE(WriteBinaryXml(broken, 2, out).IsError());
}

}  // namespace
