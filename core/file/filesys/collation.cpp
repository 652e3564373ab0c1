#include "filesys/collation.h"

namespace {
UnicodeCollation* g_collation = nullptr;
}

UnicodeCollation* GetUnicodeCollation() { return g_collation; }
void SetUnicodeCollation(UnicodeCollation* collation) { g_collation = collation; }

namespace FatText {

// 7-bit text needs no code page, so it is converted here in either case;
// only the rest goes to the firmware's service.
namespace {
bool IsAscii(const std::u16string& text) {
  for (char16_t c : text)
    if (c >= 0x80) return false;
  return true;
}
}  // namespace

void Upper(std::u16string& text) {
  if (g_collation && !IsAscii(text)) {
    g_collation->StrUpr(text);
    return;
  }
  for (char16_t& c : text)
    if (c >= u'a' && c <= u'z') c = char16_t(c - 32);
}

bool ToText(const uint8_t* fat, size_t size, std::u16string& text) {
  text.clear();
  bool ascii = true;
  for (size_t i = 0; i < size; ++i) ascii = ascii && fat[i] < 0x80;
  if (!ascii) return g_collation != nullptr && g_collation->FatToStr(fat, size, text);
  for (size_t i = 0; i < size; ++i) text.push_back(char16_t(fat[i]));
  return true;
}

bool ToOem(const std::u16string& text, std::string& fat) {
  fat.clear();
  if (!IsAscii(text)) return g_collation != nullptr && g_collation->StrToFat(text, fat);
  for (char16_t c : text) fat.push_back(char(c));
  return true;
}

}  // namespace FatText
