// malloc and friends over the firmware's pool.
//
// Pool memory is only 8-byte aligned, while the C++ ABI promises 16 for
// malloc and operator new.  Each block therefore carries a small header just
// below the pointer handed out: the pool address to give back and the size
// asked for (realloc needs it).
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform.h"

namespace {

struct BlockHeader {
  size_t size;
  void* pool;
};
static_assert(sizeof(BlockHeader) == 16);

constexpr size_t kMinimumAlignment = 16;

BlockHeader* HeaderOf(void* block) { return static_cast<BlockHeader*>(block) - 1; }

void* AllocateAligned(size_t alignment, size_t size) {
  if (!Uefi::BootServicesAvailable()) return nullptr;
  if (alignment < kMinimumAlignment) alignment = kMinimumAlignment;
  if ((alignment & (alignment - 1)) != 0) return nullptr;
  // Worst case: the pool block starts 8 bytes past an alignment boundary.
  size_t overhead = sizeof(BlockHeader) + alignment;
  if (size > SIZE_MAX - overhead) return nullptr;
  void* pool = nullptr;
  if (EFI_ERROR(Uefi::BootServices()->AllocatePool(EfiLoaderData, size + overhead, &pool)) || !pool)
    return nullptr;
  uintptr_t start = reinterpret_cast<uintptr_t>(pool) + sizeof(BlockHeader);
  uintptr_t aligned = (start + alignment - 1) & ~(uintptr_t(alignment) - 1);
  void* block = reinterpret_cast<void*>(aligned);
  *HeaderOf(block) = BlockHeader{size, pool};
  return block;
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
  void* block = AllocateAligned(kMinimumAlignment, size);
  if (!block) errno = ENOMEM;
  return block;
}

void free(void* block) {
  // After ExitBootServices the pool is gone; dropping the block is all
  // that is left to do.
  if (!block || !Uefi::BootServicesAvailable()) return;
  Uefi::BootServices()->FreePool(HeaderOf(block)->pool);
}

void* calloc(size_t count, size_t size) {
  if (size != 0 && count > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  void* block = malloc(count * size);
  if (block) memset(block, 0, count * size);
  return block;
}

void* realloc(void* block, size_t size) {
  if (!block) return malloc(size);
  if (size == 0) {
    free(block);
    return nullptr;
  }
  size_t old = HeaderOf(block)->size;
  if (size <= old) {
    HeaderOf(block)->size = size;
    return block;
  }
  void* grown = malloc(size);
  if (!grown) return nullptr;
  memcpy(grown, block, old);
  free(block);
  return grown;
}

void* aligned_alloc(size_t alignment, size_t size) {
  void* block = AllocateAligned(alignment, size);
  if (!block) errno = ENOMEM;
  return block;
}

void* memalign(size_t alignment, size_t size) { return aligned_alloc(alignment, size); }

int posix_memalign(void** result, size_t alignment, size_t size) {
  if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* block = AllocateAligned(alignment, size);
  if (!block) return ENOMEM;
  *result = block;
  return 0;
}

}  // extern "C"
