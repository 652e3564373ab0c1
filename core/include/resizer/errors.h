// Exceptions of the resizer library: plain errors under their own type, so
// that a handler can catch one failure kind and let the others pass.
#pragma once

#include "common/error.h"

namespace resizer {

#define RESIZER_ERROR_CLASS(Name)                                   \
  class Name : public ::Common::Error {                             \
   public:                                                          \
    using ::Common::Error::Error;                                   \
    explicit Name(const ::Common::Error& e) : ::Common::Error(e) {} \
  }

// Thrown by the allocator's failure handler: code 0x70002, "Not enough
// memory.".
class NotEnoughMemory : public ::Common::Error {
 public:
  using ::Common::Error::Error;
  explicit NotEnoughMemory(const ::Common::Error& e) : ::Common::Error(e) {}
  explicit NotEnoughMemory(const ::Common::ErrorLocation& where);
};

RESIZER_ERROR_CLASS(ResizeImpossible);
RESIZER_ERROR_CLASS(ErrorInSuperblock);
RESIZER_ERROR_CLASS(InvalidFileSystem);
RESIZER_ERROR_CLASS(InvalidPartitionSize);
RESIZER_ERROR_CLASS(UnableToSetVolumeLabel);
RESIZER_ERROR_CLASS(Canceled);

#undef RESIZER_ERROR_CLASS

}  // namespace resizer
