// Errors of the resizer containers: the caller broke a rule (code 0x70001
// with an 8-bit text beginning "Internal error: "), or memory ran out.
#pragma once

#include <cstdlib>

#include "common/error.h"
#include "common/error_codes.h"
#include "resizer/errors.h"

namespace resizer::detail {

[[noreturn]] inline void RaiseInternal(const Common::ErrorLocation& where, const char* text) {
  throw Common::Error(where, Common::Codes::ResizerInternal, text);
}

// malloc that raises instead of answering null.
inline void* Allocate(size_t bytes, const Common::ErrorLocation& where) {
  void* p = std::malloc(bytes == 0 ? 1 : bytes);
  if (p == nullptr) throw NotEnoughMemory(where);
  return p;
}

}  // namespace resizer::detail
