// The case and OEM rules of FAT names.  The firmware may offer a Unicode
// collation service that knows the volume's code page; without one only
// 7-bit text can be upper-cased or converted, and any unit at or above 0x80
// has no OEM form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class UnicodeCollation {
 public:
  virtual ~UnicodeCollation() = default;
  // Upper-cases in place.
  virtual void StrUpr(std::u16string& text) = 0;
  // OEM bytes of a short name to text; false when a byte has no text form.
  virtual bool FatToStr(const uint8_t* fat, size_t size, std::u16string& text) = 0;
  // Text to OEM bytes; false when a character has no OEM form.
  virtual bool StrToFat(const std::u16string& text, std::string& fat) = 0;
};

// The service in use for FAT names: null means the 7-bit rules.  The loader
// installs the firmware's before it mounts anything.
UnicodeCollation* GetUnicodeCollation();
void SetUnicodeCollation(UnicodeCollation* collation);

// The rules themselves, through the service when one is installed.
namespace FatText {
void Upper(std::u16string& text);
bool ToText(const uint8_t* fat, size_t size, std::u16string& text);
bool ToOem(const std::u16string& text, std::string& fat);
}  // namespace FatText
