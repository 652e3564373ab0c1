// Error blocks from outside: reading must never fault, the report of what
// was read must be printable, and writing it out and reading it back must
// settle after one round.
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/error.h"

namespace {

const uint8_t* Data(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Common::Error read = Common::DeserializeError(data, size);
  const std::u16string text = Common::ErrorText(read);

  const std::string first = Common::SerializeError(read);
  const Common::Error again = Common::DeserializeError(Data(first), first.size());
  const std::string second = Common::SerializeError(again);
  if (second != first) __builtin_trap();
  // Nothing the report shows may be lost on the way.
  if (Common::ErrorText(again) != text) __builtin_trap();
  if (again.Code() != read.Code()) __builtin_trap();
  return 0;
}
