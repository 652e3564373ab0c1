// Null-tolerant reads of the configuration tree.
#pragma once

#include <memory>
#include <string>

#include "xml/xml.h"

class i_file;

namespace EfiLoader::xml {

inline const XmlElement* Child(const XmlElement* e, const char* name) {
  return e ? e->FindChild(name) : nullptr;
}
inline size_t ChildCount(const XmlElement* e) { return e ? e->GetChildCount() : 0; }
inline const XmlElement* ChildAt(const XmlElement* e, size_t i) {
  return e ? e->GetChild(i) : nullptr;
}
inline const std::string& Name(const XmlElement* e) {
  static const std::string kNone;
  return e ? e->name : kNone;
}
inline bool Attribute(const XmlElement* e, const char* name, std::u16string& value) {
  return e && e->GetAttribute(name, value);
}
inline std::u16string FirstText(const XmlElement* e) { return e ? e->GetFirstText() : u""; }

inline bool Parse(std::unique_ptr<XmlElement>& root, i_file& file) {
  int line = 0, column = 0;
  return ReadXml(root, file, line, column);
}

}  // namespace EfiLoader::xml
