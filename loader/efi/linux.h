// Starting Linux by the x86 boot protocol: the kernel's setup header is
// checked, the zero page built, the protected-mode kernel loaded at an
// aligned address, the command line offered for editing, and the processor
// handed to the kernel's 32-bit entry after the boot services are gone.
#pragma once

#include <cstdint>
#include <string>

#include "file/file.h"

namespace EfiLoader {

class PageAlignedMemory;

// The fields of a bzImage's boot sector and setup header that the loader
// reads, from the first 1024 bytes of the file.
struct KernelHeader {
  uint8_t setupSects = 0;
  uint16_t bootFlag = 0;
  uint8_t jumpSecondByte = 0;
  uint32_t header = 0;
  uint16_t version = 0;
  uint16_t kernelVersion = 0;
  uint8_t loadFlags = 0;
  uint32_t kernelAlignment = 0;
  uint8_t relocatableKernel = 0;
  uint32_t initSize = 0;

  static KernelHeader Read(const uint8_t* first1024);
  // (setup_sects + 1) x 512, with 0 sectors counting as 4.
  uint64_t SetupSize() const { return setupSects ? (setupSects + 1ull) * 512 : 2560; }
};

// The text a kernel of the system's own carries in its version string.
inline constexpr char kOwnKernelMarker[] = "-velarix-";

// Throws on the first rule the header breaks: "The kernel is corrupted."
// (0x1480002) or "An unsupported kernel version." (0x1480003).
// `zeroPage` holds at least the first 1024 bytes of the file.
void ValidateKernel(const uint8_t* zeroPage, uint64_t fileSize);

// The one-row editor, opened if 'e' or 'E' was typed.  True if the user
// accepted an edit, which then replaced `text`.
bool EditCommandLine(std::string& text);

// Boots `kernel` with the RAM disks in `ramdisk` (empty: none; its size is
// that of the files plus 4096) and the command line `arguments`.  Comes
// back only by an exception, while the boot services are still up.
void RunLinux(ri_file& kernel, PageAlignedMemory& ramdisk, const std::string& arguments);

}  // namespace EfiLoader
