// The machinery behind ReadXml: the text scanner and the binary readers.
// Callers want xml/xml.h; this header exists for the readers' own tests
// and for tools that need the events rather than a tree.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "xml/xml.h"

class i_file;

// The text scanner.  It reads the stream forward only, keeping just the
// unread part of the input in `buffer`, and turns it into the tokens below.
class XmlTokenizer {
 public:
  enum State {
    kStart,
    kContent,
    kTag,
    kAttributeDouble,
    kAttributeSingle,
    kCdata,
    kComment,
    kProcessingInstruction,
    kDoctype,
  };

  enum Token {
    kEnd = 0,
    kError = 1,
    kStartTag = 2,       // "<name"
    kTagClose = 3,       // ">"
    kEmptyTagClose = 4,  // "/>"
    kEndTag = 5,         // "</name"
    kAttributeName = 6,
    kAttributeEquals = 7,  // "=" with its opening quote
    kText = 8,
    kMagic = 9,  // "BXML" at the very start
  };

  // The first read asks for 4 bytes only, so that a binary reader can take
  // over at the fifth byte; later reads ask for this much.
  static constexpr size_t kBlockSize = 32768;

  explicit XmlTokenizer(i_file& stream) : stream_(&stream) {}

  // Scans the next token into `token`, `name`, `value`, `line`, `column`
  // and returns its kind.  Errors are final: after a kError every call
  // gives kError again.
  int Next();

  State state = kStart;
  // Blank handling: 0 nothing pending, 1 one blank pending, 2 blanks are
  // being dropped.  Starting at 2 drops the blanks in front of the root,
  // behind an XML declaration for instance.
  int space = 2;
  bool preserve = false;
  int token = kEnd;
  std::string name;
  std::u16string value;
  // Where the current token begins (or, for kError, the offending byte):
  // line from 1, column from 0.
  uint32_t line = 1;
  uint32_t column = 0;

 private:
  int ScanStart();
  int ScanContent();
  int ScanTag();
  int ScanAttribute(char quote);
  int ScanCdata();
  int ScanComment();
  int ScanProcessingInstruction();
  int ScanDoctype();

  int ScanEntity();
  // `quote` ends the run too; -1 in content.
  int ScanTextRun(int quote);
  void ScanName();
  // Appends one strictly decoded character to `value`; false on a fault.
  bool TakeChar();
  bool TakeWhitespaceRun();
  // A whitespace run outside `preserve`: one blank becomes pending.
  void TakeBlanks();

  // The byte `ahead` places after the current position, or -1 when the
  // input ends before it.  Refills the buffer as needed.
  int Peek(size_t ahead);
  bool Ensure(size_t count);
  bool Matches(const char* literal);
  void Advance(size_t count);
  void MarkToken();
  // Ends the scan with kError, pointing at the current byte, or with
  // `atTokenStart` at the beginning of the token (a bad entity is reported
  // at its "&").
  int Fail(bool atTokenStart = false);

  i_file* stream_;
  bool endOfInput_ = false;
  bool failed_ = false;
  std::string buffer_;
  size_t position_ = 0;
  uint32_t scanLine_ = 1;
  uint32_t scanColumn_ = 0;
};

// Receiver of the binary readers' events.  Every operation of the base
// does nothing.
class xml_reader_interface {
 public:
  virtual ~xml_reader_interface() = default;
  virtual void StartDocument() {}
  virtual void EndDocument() {}
  virtual void StartElement(const std::string& name) {}
  virtual void EndElement() {}
  virtual void Attribute(const std::string& name, const std::u16string& value) {}
  virtual void Text(const std::u16string& value) {}
  virtual void Data(const std::string& bytes) {}
};

// Builds the tree from the events.
class binary_reader : public xml_reader_interface {
 public:
  binary_reader(i_file& stream, std::unique_ptr<XmlElement>& root)
      : stream_(&stream), root_(&root) {}

  void StartDocument() override;
  // A document that held no element at all is a failure of the stream.
  void EndDocument() override;
  void StartElement(const std::string& name) override;
  void EndElement() override;
  // The first value of a name wins; later ones are dropped.
  void Attribute(const std::string& name, const std::u16string& value) override;
  void Text(const std::u16string& value) override;

 private:
  i_file* stream_;
  std::unique_ptr<XmlElement>* root_;
  std::vector<XmlElement*> stack_;
};

// What both binary versions share: varints, string references, texts.
// Every failure is recorded in the stream, which is the only result the
// caller looks at.
class xml_reader_core {
 public:
  xml_reader_core(i_file& stream, xml_reader_interface& events)
      : stream_(&stream), events_(&events) {}
  virtual ~xml_reader_core() = default;
  // Reads one element and its subtree; false when there was none (or the
  // stream failed).
  virtual bool Read() = 0;

 protected:
  bool ReadByte(uint8_t& byte);
  // At most 5 bytes; a sixth would not fit 32 bits and is corruption.
  bool ReadVarint(uint32_t& value);
  // `length` bytes, read in bounded steps so that a length that the
  // stream cannot back fails on the short read, not on the allocation.
  bool ReadBytes(uint32_t length, std::string& bytes);
  // A string reference whose identifier is already known.
  bool ReadString(uint32_t id, std::string& text);
  bool ReadUtf8(uint32_t length, std::u16string& text);
  // Guard of the nesting depth around StartElement/EndElement.
  bool Enter();
  void Leave() { --depth_; }
  bool Failed() const;
  void Corrupt();

  i_file* stream_;
  xml_reader_interface* events_;
  std::map<uint32_t, std::string> strings;

 private:
  unsigned depth_ = 0;
};

// Version 1: counted attributes and counted text items.
class xml_reader_binary_old : public xml_reader_core {
 public:
  using xml_reader_core::xml_reader_core;
  bool Read() override;
};

// Version 2: lists ended by identifier 0, texts and raw data items.
class xml_reader_binary_new : public xml_reader_core {
 public:
  using xml_reader_core::xml_reader_core;
  bool Read() override;
};
