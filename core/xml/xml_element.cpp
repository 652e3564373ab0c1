#include "xml/xml.h"

XmlElement::~XmlElement() {
  // Children are moved onto a work list and emptied there, so each
  // element dies with no children of its own and destruction stays flat.
  std::vector<std::unique_ptr<XmlElement>> pending = std::move(children);
  while (!pending.empty()) {
    std::unique_ptr<XmlElement> e = std::move(pending.back());
    pending.pop_back();
    for (auto& c : e->children) pending.push_back(std::move(c));
    e->children.clear();
  }
}

XmlElement* XmlElement::AddChild(std::string childName) {
  children.push_back(std::make_unique<XmlElement>(std::move(childName), this));
  texts.emplace_back();
  return children.back().get();
}

XmlElement* XmlElement::FindChild(std::string_view childName) const {
  for (const auto& c : children) {
    if (c->name == childName) return c.get();
  }
  return nullptr;
}

bool XmlElement::HasAttribute(std::string_view attributeName) const {
  return attributes.find(attributeName) != attributes.end();
}

bool XmlElement::GetAttribute(std::string_view attributeName, std::u16string& value) const {
  auto it = attributes.find(attributeName);
  if (it == attributes.end()) return false;
  value = it->second;
  return true;
}

std::u16string XmlElement::GetAttribute(std::string_view attributeName,
                                        std::u16string_view defaultValue) const {
  auto it = attributes.find(attributeName);
  if (it == attributes.end()) return std::u16string(defaultValue);
  return it->second;
}
