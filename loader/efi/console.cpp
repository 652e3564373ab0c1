#include "efi/console.h"

#include "common/text.h"
#include "efi/platform.h"

namespace EfiLoader {

void Print(const std::u16string& text) { Fw().OutputString(text); }
void Print(const char* utf8) { Fw().OutputString(Common::Utf8ToUtf16(utf8)); }

}  // namespace EfiLoader
