// Internals shared by the record kinds of Common::Error.
#pragma once

#include <cstddef>
#include "common/error.h"

namespace Common::detail {

// Allocates a zeroed record of `size` bytes (at least the fixed part) with
// a reference count of 1, or null when memory ran out.
ErrorRecord* AllocateRecord(size_t size, const ErrorOps* ops);
void FreeRecord(ErrorRecord* rec);
// Copies `rec` byte for byte into a new block: count 1, no cause.
ErrorRecord* CloneRecord(const ErrorRecord* rec);
// One more reference on the static record that stands in when no record can
// be allocated.
ErrorRecord* OutOfMemoryRecord();

uint64_t NoNumberParameter(const ErrorRecord*, const char*);
const char* ModuleTextParameter(const ErrorRecord*, const char* name);
const char16_t* NoWideParameter(const ErrorRecord*, const char*);
const char* ModuleParameterNames(const ErrorRecord*);

}  // namespace Common::detail
