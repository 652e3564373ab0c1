// Helpers of the XML reader tests: a canonical form of a tree that shows
// every text slot, and a stream whose delivery the test controls.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/error_codes.h"
#include "file/file.h"
#include "xml/xml.h"

namespace xml_test {

// JSON-like quoting of UTF-16 text: every unit outside printable ASCII is
// shown as \uXXXX, so surrogate pairs and stray units are visible.
inline std::string Quote(const std::u16string& s) {
  std::string out = "\"";
  for (char16_t c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c >= 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c));
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// name{attr="v",...}["text0" child "text1" ...]: every slot of `texts` is
// shown, empty ones too.  A broken invariant (slot count, parent link)
// shows up as "!!" so that no comparison can pass over it.
inline std::string Describe(const XmlElement& e) {
  std::string out = e.name;
  if (!e.attributes.empty()) {
    out += "{";
    bool first = true;
    for (const auto& [k, v] : e.attributes) {
      if (!first) out += ",";
      first = false;
      out += k + "=" + Quote(v);
    }
    out += "}";
  }
  if (e.texts.size() != e.children.size() + 1) return out + "!!slots";
  out += "[" + Quote(e.texts[0]);
  for (size_t i = 0; i < e.children.size(); ++i) {
    if (e.children[i]->parent != &e) out += "!!parent";
    out += " " + Describe(*e.children[i]) + " " + Quote(e.texts[i + 1]);
  }
  return out + "]";
}

// A stream over a byte string that hands out at most `chunk` bytes per
// call, records every request size and can fail after `failAfter` bytes.
// A `chunk` below the request size bends the stream contract (a short read
// means the end of the data): the text scanner must cope with it, since it
// stops only at a read of 0 bytes, while the binary readers rightly take
// it as the end of the file.
class TestStream final : public i_file {
 public:
  explicit TestStream(std::string data, size_t chunk = SIZE_MAX, size_t failAfter = SIZE_MAX)
      : data_(std::move(data)), chunk_(chunk), failAfter_(failAfter) {}

  using i_file::Read;
  void Read(void* buffer, uint64_t size, uint64_t& got) override {
    got = 0;
    requests.push_back(size);
    if (HasError()) return;
    if (position_ >= failAfter_) {
      SetError(ERROR_HERE, Common::Codes::ReadError);
      return;
    }
    uint64_t n = std::min<uint64_t>({size, chunk_, data_.size() - position_,
                                      failAfter_ - position_});
    std::memcpy(buffer, data_.data() + position_, n);
    position_ += n;
    got = n;
  }

  size_t Position() const { return position_; }
  std::vector<uint64_t> requests;

 private:
  std::string data_;
  size_t chunk_;
  size_t failAfter_;
  size_t position_ = 0;
};

struct Result {
  bool ok = false;
  std::string tree;  // Describe() of whatever root was left, "" for none
  int line = 0;
  int column = 0;
  uint32_t streamError = 0;
};

inline Result Parse(const std::string& bytes, size_t chunk = SIZE_MAX) {
  TestStream s(bytes, chunk);
  std::unique_ptr<XmlElement> root;
  Result r;
  r.ok = ReadXml(root, s, r.line, r.column);
  if (root) r.tree = Describe(*root);
  r.streamError = s.GetError().Code();
  return r;
}

// The tree of a document that must parse.
inline std::unique_ptr<XmlElement> ParseTree(const std::string& text) {
  TestStream s(text);
  std::unique_ptr<XmlElement> root;
  int line, column;
  const bool ok = ReadXml(root, s, line, column);
  if (!ok) root.reset();
  return root;
}

// The tree on success, "FAIL" otherwise: one string to compare in tables.
inline std::string Outcome(const std::string& bytes, size_t chunk = SIZE_MAX) {
  Result r = Parse(bytes, chunk);
  return r.ok ? r.tree : "FAIL";
}

}  // namespace xml_test
