// Message templates and arguments of any shape: substitution must never
// fault or hang, and the text never grows past its cap.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/format_message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // UTF-16 units; a unit of 0xFFFF separates the template from the
  // arguments and the arguments from each other.
  std::u16string units;
  for (size_t i = 0; i + 1 < size; i += 2) units.push_back(char16_t(data[i] | (data[i + 1] << 8)));
  const std::u16string_view all(units);
  size_t sep = all.find(char16_t(0xFFFF));
  const std::u16string_view pattern = all.substr(0, sep);
  Fdisk::FormatMessage message(pattern);
  while (sep != std::u16string_view::npos) {
    const size_t next = all.find(char16_t(0xFFFF), sep + 1);
    message.Add(all.substr(sep + 1, next == std::u16string_view::npos ? next : next - sep - 1));
    sep = next;
  }
  if (message.Text().size() > std::max(pattern.size(), Fdisk::FormatMessage::kMaxTextUnits))
    __builtin_trap();
  return 0;
}
