#include "resizer/extent_detail.h"

#include <cstring>

#include "internal_error.h"

namespace resizer {

ExtentStore::~ExtentStore() { std::free(begin_); }

void ExtentStore::Reserve(size_t used, size_t wanted) {
  if (Capacity() >= wanted) return;
  if (used > Size()) detail::RaiseInternal(ERROR_HERE, "Internal error: invalid extent store size");
  const size_t doubled = used > SIZE_MAX / 2 ? SIZE_MAX : 2 * used;
  const size_t bytes = wanted > doubled ? wanted : doubled;
  auto* block = static_cast<uint8_t*>(detail::Allocate(bytes, ERROR_HERE));
  if (used != 0) std::memcpy(block, begin_, used);
  std::free(begin_);
  begin_ = block;
  end_ = block + used;
  capacity_ = block + bytes;
}

void ExtentStore::Append(const void* data, size_t size) {
  const size_t used = Size();
  if (size > SIZE_MAX - used) throw NotEnoughMemory(ERROR_HERE);
  Reserve(used, used + size);
  if (size != 0) std::memcpy(end_, data, size);
  end_ += size;
}

}  // namespace resizer
