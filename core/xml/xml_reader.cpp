// ReadXml: picks the reader by the first bytes and runs it.
#include <memory>

#include "file/file.h"
#include "xml/xml.h"
#include "xml/xml_readers.h"

namespace {

using T = XmlTokenizer;

// Parses the rest of `e`, whose start tag has just been taken.  `preserve`
// is the flag of the enclosing element.  The token after the element is
// current on return.
bool ParseElement(XmlTokenizer& t, XmlElement& e, bool preserve, unsigned depth) {
  while (t.token == T::kAttributeName) {
    std::string attributeName = t.name;
    if (e.attributes.find(attributeName) != e.attributes.end()) return false;
    if (t.Next() != T::kAttributeEquals) return false;
    std::u16string& v = e.attributes[attributeName];
    while (t.Next() == T::kText) v += t.value;
    if (attributeName == "xml:space" && v == u"preserve") {
      preserve = true;
      t.preserve = true;
    }
  }
  if (t.token == T::kEmptyTagClose) {
    t.Next();
    return true;
  }
  if (t.token != T::kTagClose) return false;

  t.Next();
  for (;;) {
    if (t.token == T::kEndTag) break;
    if (t.token == T::kText) {
      e.texts.back() += t.value;
      t.Next();
      continue;
    }
    if (t.token != T::kStartTag) return false;
    if (depth >= kXmlMaxDepth) return false;
    XmlElement* child = e.AddChild(t.name);
    t.Next();
    if (!ParseElement(t, *child, preserve, depth + 1)) return false;
    // The child may have switched `preserve` on for itself; the token
    // behind its end tag has already been read under its setting.
    t.preserve = preserve;
  }
  if (t.name != e.name) return false;
  if (t.Next() != T::kTagClose) return false;
  t.Next();
  return true;
}

bool ReadBinary(std::unique_ptr<XmlElement>& root, i_file& stream) {
  uint8_t header[2];  // version, and a byte without meaning
  stream.Read(header, 2);
  if (stream.HasError()) return false;
  binary_reader builder(stream, root);
  std::unique_ptr<xml_reader_core> reader;
  if (header[0] == 1) {
    reader = std::make_unique<xml_reader_binary_old>(stream, builder);
  } else if (header[0] == 2) {
    reader = std::make_unique<xml_reader_binary_new>(stream, builder);
  } else {
    return false;
  }
  builder.StartDocument();
  reader->Read();
  builder.EndDocument();
  return !stream.HasError();
}

}  // namespace

bool ReadXml(std::unique_ptr<XmlElement>& root, i_file& stream, int& line, int& column) {
  root.reset();
  XmlTokenizer t(stream);
  bool ok = false;
  switch (t.Next()) {
    case T::kStartTag:
      root = std::make_unique<XmlElement>(t.name);
      t.Next();
      ok = ParseElement(t, *root, false, 1) && t.token == T::kEnd && !stream.HasError();
      break;
    case T::kMagic:
      ok = ReadBinary(root, stream);
      break;
    default:
      break;
  }
  line = static_cast<int>(t.line);
  column = static_cast<int>(t.column) + 1;
  return ok;
}
