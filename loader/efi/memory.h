// Firmware pages for what the kernel must find, and the way out of the
// firmware's boot services.
#pragma once

#include <cstdint>

namespace EfiLoader {

// A block of firmware pages (EfiLoaderData) that lies wholly at or below a
// limit.  Move-only; the owner gives the pages back when it goes, unless it
// disowned them for the kernel.
class PageAlignedMemory {
 public:
  PageAlignedMemory() = default;
  // Throws "Not enough memory to complete the operation." when the pages
  // cannot be had below `limit` (the highest address the block may touch).
  PageAlignedMemory(uint64_t size, uint64_t limit);
  ~PageAlignedMemory() { Release(); }

  PageAlignedMemory(PageAlignedMemory&& other) noexcept { Swap(other); }
  PageAlignedMemory& operator=(PageAlignedMemory&& other) noexcept {
    if (this != &other) {
      Release();
      Swap(other);
    }
    return *this;
  }
  PageAlignedMemory(const PageAlignedMemory&) = delete;
  PageAlignedMemory& operator=(const PageAlignedMemory&) = delete;

  void Swap(PageAlignedMemory& other) noexcept;
  // FreePages; the object is empty afterwards.
  void Release() noexcept;
  // Forgets the pages without freeing them: they stay for the kernel.
  void Disown() noexcept { address_ = 0, pages_ = 0, size_ = 0; }

  uint64_t Address() const noexcept { return address_; }
  uint32_t Pages() const noexcept { return pages_; }
  // The size that was asked for.
  uint64_t Size() const noexcept { return size_; }
  uint64_t Capacity() const noexcept { return static_cast<uint64_t>(pages_) * 4096; }
  bool Empty() const noexcept { return address_ == 0; }
  // The block's bytes as the loader reaches them; null when empty.
  uint8_t* Data() const;

 private:
  uint64_t address_ = 0;
  uint32_t pages_ = 0;
  uint64_t size_ = 0;
};

inline constexpr uint64_t kKernelMemoryLimit = 0x30000000;  // zero page, kernel
inline constexpr uint64_t kFileMemoryLimit = 0x80000000;    // RAM disks, memory map

// The E820 type of a firmware memory type with its attributes.
uint32_t E820TypeOf(uint32_t efiType, uint64_t attribute);

// Turns the memory map into the zero page's E820 table (with a setup_data
// record for what does not fit), ends the boot services (three attempts)
// and, for the system's own kernels, installs a virtual address map for
// the runtime services.  `zeroPage` is the 16384-byte block.  On return
// only the runtime services are left; throws while boot services are
// still up.
void ExitEFI(uint8_t* zeroPage, bool ownKernel);

}  // namespace EfiLoader
