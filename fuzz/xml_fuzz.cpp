// Any bytes as a configuration file: the reader must never fault, and a
// tree it accepts must survive both binary forms unchanged whenever the
// writer agrees to encode it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "file/buf_ifile.h"
#include "xml/bxml_writer.h"
#include "xml/xml.h"

namespace {

// The invariants every caller relies on, checked over the whole tree.
void CheckShape(const XmlElement& e, unsigned depth) {
  if (depth > kXmlMaxDepth) __builtin_trap();
  if (e.texts.size() != e.GetChildCount() + 1) __builtin_trap();
  for (size_t i = 0; i < e.GetChildCount(); ++i) {
    const XmlElement* c = e.GetChild(i);
    if (!c || c->parent != &e) __builtin_trap();
    if (e.FindChild(c->name) == nullptr) __builtin_trap();
    CheckShape(*c, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  buf_ifile<unsigned char> in(data, size);
  std::unique_ptr<XmlElement> root;
  int line = 0, column = 0;
  if (!ReadXml(root, in, line, column)) return 0;
  if (!root || line < 1 || column < 1) __builtin_trap();
  CheckShape(*root, 1);

  for (int version : {1, 2}) {
    std::string bytes;
    if (WriteBinaryXml(*root, version, bytes).IsError()) continue;
    buf_ifile<unsigned char> again(bytes.data(), bytes.size());
    std::unique_ptr<XmlElement> back;
    if (!ReadXml(back, again, line, column)) __builtin_trap();
    if (!SameXmlTree(*root, *back)) __builtin_trap();
  }
  return 0;
}
