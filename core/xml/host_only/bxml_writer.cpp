#include "xml/bxml_writer.h"

#include <map>
#include <utility>
#include <vector>

#include "common/error_codes.h"
#include "common/text.h"

namespace {

class Writer {
 public:
  Writer(int version, std::string& out)
      : version_(version), out_(out), nextId_(version == 1 ? 0 : 1) {}

  Common::Error Element(const XmlElement& e, unsigned depth) {
    if (depth > kXmlMaxDepth) return Refuse(e, "is nested deeper than the readers accept");
    if (e.texts.size() != e.children.size() + 1)
      return Refuse(e, "has text slots that do not match its children");
    if (e.name.size() > 0xFFFFFFFFu) return Refuse(e, "has a name too long for the format");
    Ref(e.name);

    if (version_ == 1) {
      if (e.attributes.size() > 255) return Refuse(e, "has more than 255 attributes");
      out_.push_back(static_cast<char>(e.attributes.size()));
    }
    for (const auto& [name, value] : e.attributes) {
      std::string utf8;
      if (!Encode(value, utf8)) return Refuse(e, "has an attribute value the format cannot carry");
      if (name.size() > 0xFFFFFFFFu) return Refuse(e, "has an attribute name too long");
      Ref(name);
      if (version_ == 1) {
        if (utf8.size() > 0xFFFFFFFFu) return Refuse(e, "has an attribute value too long");
        Varint(static_cast<uint32_t>(utf8.size()));
      } else {
        if (utf8.size() > 0x7FFFFFFFu) return Refuse(e, "has an attribute value too long");
        Varint(static_cast<uint32_t>(utf8.size()) << 1);
      }
      out_ += utf8;
    }
    if (version_ == 2) Varint(0);  // end of the attributes
    if (version_ == 1) {
      if (e.texts.size() > 0xFFFFFFFFu) return Refuse(e, "has too many children");
      Varint(static_cast<uint32_t>(e.texts.size()));
    }

    for (size_t i = 0; i < e.texts.size(); ++i) {
      if (i > 0) {
        Common::Error err = Element(*e.children[i - 1], depth + 1);
        if (err.IsError()) return err;
      }
      std::string utf8;
      if (!Encode(e.texts[i], utf8)) return Refuse(e, "has a text the format cannot carry");
      const uint64_t limit = version_ == 1 ? 0xFFFFFFFFu : 0x7FFFFFFFu;
      if (utf8.size() > limit) return Refuse(e, "has a text too long for the format");
      Varint(version_ == 1 ? static_cast<uint32_t>(utf8.size())
                           : static_cast<uint32_t>(utf8.size()) << 1);
      out_ += utf8;
    }
    if (version_ == 2) Varint(0);  // no further child
    return Common::Error();
  }

 private:
  void Varint(uint32_t v) {
    while (v >= 0x80) {
      out_.push_back(static_cast<char>((v & 0x7F) | 0x80));
      v >>= 7;
    }
    out_.push_back(static_cast<char>(v));
  }

  // Each string is spelled out at its first use and referred to after.
  void Ref(const std::string& s) {
    auto it = ids_.find(s);
    if (it != ids_.end()) {
      Varint(it->second);
      return;
    }
    const uint32_t id = nextId_++;
    ids_.emplace(s, id);
    Varint(id);
    Varint(static_cast<uint32_t>(s.size()));
    out_ += s;
  }

  static bool Encode(const std::u16string& text, std::string& utf8) {
    for (size_t i = 0; i < text.size(); ++i) {
      const char16_t c = text[i];
      if (c == 0) return false;
      if (c >= 0xD800 && c <= 0xDBFF) {
        if (i + 1 >= text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF) return false;
        ++i;
      } else if (c >= 0xDC00 && c <= 0xDFFF) {
        return false;
      }
    }
    utf8 = Common::Utf16ToUtf8(text);
    return true;
  }

  static Common::Error Refuse(const XmlElement& e, const char* why) {
    const std::string text = "The element \"" + e.name + "\" " + why + ".";
    return Common::Error(ERROR_HERE, Common::Codes::NotSupported, text.c_str());
  }

  int version_;
  std::string& out_;
  uint32_t nextId_;
  std::map<std::string, uint32_t> ids_;
};

}  // namespace

Common::Error WriteBinaryXml(const XmlElement& root, int version, std::string& out) {
  out.clear();
  if (version != 1 && version != 2)
    return Common::Error(ERROR_HERE, Common::Codes::InvalidUsage, "Binary XML has versions 1 and 2.");
  out = "BXML";
  out.push_back(static_cast<char>(version));
  out.push_back(0);
  Writer w(version, out);
  Common::Error err = w.Element(root, 1);
  if (err.IsError()) out.clear();
  return err;
}

bool SameXmlTree(const XmlElement& a, const XmlElement& b) {
  std::vector<std::pair<const XmlElement*, const XmlElement*>> pending{{&a, &b}};
  while (!pending.empty()) {
    const auto [x, y] = pending.back();
    pending.pop_back();
    if (x->name != y->name || x->attributes != y->attributes || x->texts != y->texts ||
        x->children.size() != y->children.size())
      return false;
    for (size_t i = 0; i < x->children.size(); ++i)
      pending.emplace_back(x->children[i].get(), y->children[i].get());
  }
  return true;
}
