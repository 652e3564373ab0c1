#include "common/text.h"
#include "tool.h"

namespace tool {
std::string ToUtf8(const std::u16string& s) { return Common::Utf16ToUtf8(s); }
}  // namespace tool
