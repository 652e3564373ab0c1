// The two binary forms.  Both send events to an xml_reader_interface; any
// fault ends up as the stream's error, which is all the caller checks.
#include "common/error_codes.h"
#include "common/text.h"
#include "file/file.h"
#include "xml/xml_readers.h"

// --- binary_reader -------------------------------------------------------

void binary_reader::StartDocument() { stack_.clear(); }

void binary_reader::EndDocument() {
  // A document of no element leaves nothing for a caller to walk.
  if (!*root_ && !stream_->HasError()) stream_->SetError(ERROR_HERE, Common::Codes::Corrupted);
}

void binary_reader::StartElement(const std::string& name) {
  if (stack_.empty()) {
    *root_ = std::make_unique<XmlElement>(name);
    stack_.push_back(root_->get());
  } else {
    stack_.push_back(stack_.back()->AddChild(name));
  }
}

void binary_reader::EndElement() {
  if (!stack_.empty()) stack_.pop_back();
}

void binary_reader::Attribute(const std::string& name, const std::u16string& value) {
  if (!stack_.empty()) stack_.back()->attributes.emplace(name, value);
}

void binary_reader::Text(const std::u16string& value) {
  if (!stack_.empty()) stack_.back()->texts.back() = value;
}

// --- xml_reader_core -----------------------------------------------------

namespace {
// Bytes read per step for a counted string; the buffer never grows ahead
// of what the stream has delivered by more than this.
constexpr uint32_t kChunk = 65536;
}  // namespace

bool xml_reader_core::Failed() const { return stream_->HasError(); }

void xml_reader_core::Corrupt() {
  if (!stream_->HasError()) stream_->SetError(ERROR_HERE, Common::Codes::Corrupted);
}

bool xml_reader_core::ReadByte(uint8_t& byte) {
  if (Failed()) return false;
  stream_->Read(&byte, 1);
  return !Failed();
}

bool xml_reader_core::ReadVarint(uint32_t& value) {
  value = 0;
  for (unsigned i = 0; i < 5; ++i) {
    uint8_t b;
    if (!ReadByte(b)) return false;
    value |= static_cast<uint32_t>(b & 0x7F) << (7 * i);
    if (!(b & 0x80)) return true;
  }
  Corrupt();
  return false;
}

bool xml_reader_core::ReadBytes(uint32_t length, std::string& bytes) {
  bytes.clear();
  while (bytes.size() < length) {
    if (Failed()) return false;
    const size_t left = length - bytes.size();
    const size_t step = left < kChunk ? left : kChunk;
    const size_t old = bytes.size();
    bytes.resize(old + step);
    stream_->Read(&bytes[old], step);
  }
  return !Failed();
}

bool xml_reader_core::ReadString(uint32_t id, std::string& text) {
  auto it = strings.find(id);
  if (it != strings.end()) {
    text = it->second;
    return true;
  }
  uint32_t length;
  if (!ReadVarint(length) || !ReadBytes(length, text)) return false;
  strings.emplace(id, text);
  return true;
}

bool xml_reader_core::ReadUtf8(uint32_t length, std::u16string& text) {
  std::string bytes;
  if (!ReadBytes(length, bytes)) return false;
  text = Common::Utf8ToUtf16(bytes);
  return true;
}

bool xml_reader_core::Enter() {
  if (depth_ >= kXmlMaxDepth) {
    Corrupt();
    return false;
  }
  ++depth_;
  return true;
}

// --- version 1 -----------------------------------------------------------

bool xml_reader_binary_old::Read() {
  uint32_t id;
  std::string name;
  if (!ReadVarint(id) || !ReadString(id, name) || !Enter()) return false;
  events_->StartElement(name);

  uint8_t count = 0;
  if (ReadByte(count)) {
    for (unsigned i = 0; i < count; ++i) {
      std::string attributeName;
      uint32_t length;
      std::u16string value;
      if (!ReadVarint(id) || !ReadString(id, attributeName) || !ReadVarint(length) ||
          !ReadUtf8(length, value))
        break;
      events_->Attribute(attributeName, value);
    }
  }

  const auto textItem = [this] {
    uint32_t length;
    std::u16string text;
    if (ReadVarint(length) && ReadUtf8(length, text)) events_->Text(text);
  };
  uint32_t items = 0;
  if (!Failed() && ReadVarint(items)) {
    if (items == 0) {
      // Not even the one text every element has: the writer never makes
      // this, so the file is damaged.
      Corrupt();
    } else {
      textItem();
      for (uint32_t k = 1; k < items && !Failed(); ++k) {
        Read();
        textItem();
      }
    }
  }
  events_->EndElement();
  Leave();
  return !Failed();
}

// --- version 2 -----------------------------------------------------------

bool xml_reader_binary_new::Read() {
  uint32_t id;
  if (!ReadVarint(id) || id == 0) return false;
  std::string name;
  if (!ReadString(id, name) || !Enter()) return false;
  events_->StartElement(name);

  for (;;) {
    std::string attributeName;
    uint32_t length;
    std::u16string value;
    if (!ReadVarint(id) || id == 0) break;
    // The low bit of the length has no use for attributes.
    if (!ReadString(id, attributeName) || !ReadVarint(length) || !ReadUtf8(length >> 1, value))
      break;
    events_->Attribute(attributeName, value);
  }

  // text, child, text, child, ..., text: the list of children ends at the
  // first Read that finds none.
  while (!Failed()) {
    uint32_t item;
    if (!ReadVarint(item)) break;
    if (item & 1) {
      std::string bytes;
      if (!ReadBytes(item >> 1, bytes)) break;
      events_->Data(bytes);
    } else {
      std::u16string text;
      if (!ReadUtf8(item >> 1, text)) break;
      events_->Text(text);
    }
    if (!Read()) break;
  }
  events_->EndElement();
  Leave();
  return !Failed();
}
