// Fdisk::FormatMessage: a message template with "{index}" placeholders.
//
// A placeholder is "{index}", "{index,type}" or "{index,type,style}".  The
// arguments come one at a time, in index order from 0, and each one is put
// into the text as soon as it arrives.  Text that a subformat writes (a
// choice alternative, say) is scanned again for the arguments still to come,
// so an alternative may itself hold "{4}".
//
// Anything that does not read as a placeholder stays in the text as it
// stands: a "{" without digits behind it, an unterminated placeholder, an
// index that no argument will ever reach, a type nobody registered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace Fdisk {

// Turns one argument into text under a style.  Implementations are stateless
// and replace `result` entirely.
class SubformatBase {
 public:
  virtual void Format(const std::u16string& argument, std::u16string& result,
                      const std::u16string& style) const = 0;
  virtual ~SubformatBase();
};

// "simple": the argument unchanged.
class SubformatSimple : public SubformatBase {
 public:
  void Format(const std::u16string& argument, std::u16string& result,
              const std::u16string& style) const override;
};

// "choice": alternatives "number relation text" separated by "|"; the first
// that matches the argument gives the text.  Relations: "#" and U+2264 for
// equality, "<" when the argument is greater than the number, ">" when it is
// smaller.  U+F800 opens and closes a quoted passage in which "|" and braces
// are plain text; the quote marks themselves are dropped.  A "|" inside a
// nested placeholder does not split either.  Nothing matches: empty text.
class SubformatChoice : public SubformatBase {
 public:
  void Format(const std::u16string& argument, std::u16string& result,
              const std::u16string& style) const override;
};

// "number": with the style "hex", the decimal argument in upper-case
// hexadecimal; otherwise (or when the argument is not a decimal number) the
// argument unchanged.
class SubformatNumber : public SubformatBase {
 public:
  void Format(const std::u16string& argument, std::u16string& result,
              const std::u16string& style) const override;
};

// "bytesize": the decimal argument as a byte count, "1023 Bytes" below 1 KB,
// else in KB, MB, GB or TB with as many decimals as the style says.
class SubformatBytesize : public SubformatBase {
 public:
  void Format(const std::u16string& argument, std::u16string& result,
              const std::u16string& style) const override;
};

// "currency": the argument cut to as many characters behind its first "."
// as the style says; style 0, or no ".", leaves it unchanged.
class SubformatCurrency : public SubformatBase {
 public:
  void Format(const std::u16string& argument, std::u16string& result,
              const std::u16string& style) const override;
};

class FormatMessage {
 public:
  explicit FormatMessage(std::u16string_view pattern);
  explicit FormatMessage(const char16_t* pattern);

  FormatMessage(FormatMessage&&) noexcept;
  FormatMessage& operator=(FormatMessage&&) noexcept;
  ~FormatMessage();

  // Adds the next argument and substitutes it at once.  A null pointer is an
  // empty argument; narrow arguments are UTF-8.
  FormatMessage& Add(std::u16string_view argument);
  FormatMessage& Add(const char16_t* argument);
  FormatMessage& Add(const char* argument);
  template <typename T>
  FormatMessage& operator<<(const T& argument) {
    return Add(argument);
  }

  // Makes `subformat` answer placeholders of type `name` (replacing any
  // earlier one of that name).  Affects arguments added from now on.
  void Register(std::u16string name, std::unique_ptr<SubformatBase> subformat);

  // No substitution makes the text longer than this many units: a
  // placeholder that would is left unfilled.  Far above any real message,
  // it bounds what arguments that hold further placeholders can build up.
  static constexpr size_t kMaxTextUnits = size_t(1) << 18;

  const std::u16string& Text() const noexcept { return text_; }
  size_t ArgumentCount() const noexcept { return count_; }

 private:
  void Substitute(size_t index, const std::u16string& argument);

  std::u16string text_;
  size_t count_ = 0;
  std::map<std::u16string, std::unique_ptr<SubformatBase>, std::less<>> subformats_;
};

}  // namespace Fdisk
