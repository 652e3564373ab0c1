// loader-tool xml FILE: the tree the loader reads from a configuration
// file, text or binary, one node a line.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tool.h"
#include "xml/xml.h"
#include "xml_util.h"

namespace {

void Escape(uint32_t c, std::string& out) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
  out += buf;
}

// JSON-style quoting; characters beyond ASCII are printed as UTF-8 and
// only units that cannot be (unpaired surrogates) are escaped.
std::string QuoteWide(const std::u16string& s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size(); ++i) {
    const uint32_t c = s[i];
    switch (c) {
      case '"': out += "\\\""; continue;
      case '\\': out += "\\\\"; continue;
      case '\n': out += "\\n"; continue;
      case '\r': out += "\\r"; continue;
      case '\t': out += "\\t"; continue;
      default: break;
    }
    if (c < 0x20 || c == 0x7F) {
      Escape(c, out);
    } else if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 &&
               s[i + 1] <= 0xDFFF) {
      out += tool::ToUtf8(s.substr(i, 2));
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      Escape(c, out);
    } else {
      out += tool::ToUtf8(std::u16string(1, static_cast<char16_t>(c)));
    }
  }
  return out + "\"";
}

// Names from text files are plain ASCII; a binary file may hold any bytes,
// which are then shown quoted, byte by byte.
std::string ShowName(const std::string& name) {
  bool plain = !name.empty();
  for (unsigned char c : name) plain = plain && c > 0x20 && c < 0x7F && c != '"' && c != '\\';
  if (plain) return name;
  std::string out = "\"";
  for (unsigned char c : name) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      Escape(c, out);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

void Print(const XmlElement& e, int depth) {
  const std::string pad(static_cast<size_t>(depth) * 2, ' ');
  std::printf("%selement %s\n", pad.c_str(), ShowName(e.name).c_str());
  for (const auto& [name, value] : e.attributes)
    std::printf("%s  attribute %s = %s\n", pad.c_str(), ShowName(name).c_str(),
                QuoteWide(value).c_str());
  for (size_t i = 0; i < e.texts.size(); ++i) {
    if (i > 0) Print(*e.children[i - 1], depth + 1);
    if (!e.texts[i].empty()) std::printf("%s  text %s\n", pad.c_str(), QuoteWide(e.texts[i]).c_str());
  }
}

int Run(int argc, char** argv) {
  if (argc != 1) {
    std::fprintf(stderr, "usage: loader-tool xml FILE\n");
    return 2;
  }
  std::unique_ptr<XmlElement> root;
  if (!tool::LoadXml(argv[0], root)) return 1;
  Print(*root, 0);
  return 0;
}

tool::Registrar reg("xml", "xml FILE              show the XML tree of a text or binary file", &Run);

}  // namespace
