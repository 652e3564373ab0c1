// The configuration tree and its one entry point.
//
// A document arrives as UTF-8 text or in one of the two binary "BXML"
// forms; ReadXml tells them apart by the first bytes and builds the same
// tree from all three, so no caller ever knows which form it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class i_file;

// Nesting deeper than this is refused by every reader.  Real configurations
// are a handful of levels deep; the bound exists so that a hostile file
// cannot drive the recursive readers (or anything walking the tree) into
// the firmware's small stack.  Deliberate limit, not a format rule.
inline constexpr unsigned kXmlMaxDepth = 256;

class XmlElement {
 public:
  explicit XmlElement(std::string elementName, XmlElement* parentElement = nullptr)
      : name(std::move(elementName)), texts(1), parent(parentElement) {}
  // Tears the subtree down without recursion, so that a wide or deep tree
  // made by any means cannot exhaust the stack on its way out.
  ~XmlElement();
  XmlElement(const XmlElement&) = delete;
  XmlElement& operator=(const XmlElement&) = delete;

  // Appends a child named `childName` and the empty text slot behind it.
  XmlElement* AddChild(std::string childName);

  // The first child in document order with exactly this name, or null.
  XmlElement* FindChild(std::string_view childName) const;
  size_t GetChildCount() const noexcept { return children.size(); }
  // Null when `index` is out of range.
  XmlElement* GetChild(size_t index) const noexcept {
    return index < children.size() ? children[index].get() : nullptr;
  }

  bool HasAttribute(std::string_view attributeName) const;
  // False, `value` untouched, when the attribute is absent.
  bool GetAttribute(std::string_view attributeName, std::u16string& value) const;
  std::u16string GetAttribute(std::string_view attributeName,
                              std::u16string_view defaultValue) const;

  // The text in front of the first child (or all text of a leaf).
  const std::u16string& GetFirstText() const noexcept { return texts.front(); }

  std::string name;
  std::map<std::string, std::u16string, std::less<>> attributes;
  std::vector<std::unique_ptr<XmlElement>> children;
  // Always children.size() + 1 entries: texts[i] stands in front of
  // children[i], the last one behind the last child.
  std::vector<std::u16string> texts;
  XmlElement* parent;
};

// Parses `stream` from its current position.  Any old tree in `root` is
// destroyed first.  On success `root` holds the new tree; on failure it may
// hold a partial tree, which its owner simply drops.  `line` and `column`
// (both from 1) tell where the text scanner stopped; for the binary forms
// they point at the magic.
bool ReadXml(std::unique_ptr<XmlElement>& root, i_file& stream, int& line, int& column);
