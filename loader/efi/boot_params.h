// The Linux x86 boot protocol as the loader writes it: offsets in the zero
// page (`boot_params`, with the kernel's setup header inside it) and
// little-endian accessors for unaligned fields.
#pragma once

#include <cstdint>
#include <cstring>

namespace EfiLoader::BootParams {

// The zero page block: boot_params, the command line and the stub.
inline constexpr uint32_t kBlockSize = 16384;
inline constexpr uint32_t kCommandLineOffset = 0x1000;
inline constexpr uint32_t kCommandLineMax = 1023;
inline constexpr uint32_t kStubOffset = 0x3000;
// The header and the version string are read from this much of the file.
inline constexpr uint32_t kHeaderBytes = 1024;

// boot_params
inline constexpr uint32_t kScreenInfo = 0x000;  // 64 bytes
inline constexpr uint32_t kScreenInfoSize = 0x40;
inline constexpr uint32_t kEfiLoaderSignature = 0x1C0;
inline constexpr uint32_t kEfiSystab = 0x1C4;
inline constexpr uint32_t kEfiMemdescSize = 0x1C8;
inline constexpr uint32_t kEfiMemdescVersion = 0x1CC;
inline constexpr uint32_t kEfiMemmap = 0x1D0;
inline constexpr uint32_t kEfiMemmapSize = 0x1D4;
inline constexpr uint32_t kEfiSystabHi = 0x1D8;
inline constexpr uint32_t kEfiMemmapHi = 0x1DC;
inline constexpr uint32_t kAltMemK = 0x1E0;
inline constexpr uint32_t kE820Entries = 0x1E8;
inline constexpr uint32_t kE820Table = 0x2D0;
inline constexpr uint32_t kE820TableEntries = 128;
inline constexpr uint32_t kE820EntrySize = 20;
inline constexpr uint32_t kE820TableEnd = kE820Table + kE820TableEntries * kE820EntrySize;
static_assert(kE820TableEnd == 0xCD0);

// Setup header
inline constexpr uint32_t kSetupSects = 0x1F1;
inline constexpr uint32_t kBootFlag = 0x1FE;
inline constexpr uint32_t kJumpSecondByte = 0x201;
inline constexpr uint32_t kHeader = 0x202;
inline constexpr uint32_t kVersion = 0x206;
inline constexpr uint32_t kKernelVersion = 0x20E;
inline constexpr uint32_t kTypeOfLoader = 0x210;
inline constexpr uint32_t kLoadFlags = 0x211;
inline constexpr uint32_t kCode32Start = 0x214;
inline constexpr uint32_t kRamdiskImage = 0x218;
inline constexpr uint32_t kRamdiskSize = 0x21C;
inline constexpr uint32_t kHeapEndPtr = 0x224;
inline constexpr uint32_t kCmdLinePtr = 0x228;
inline constexpr uint32_t kKernelAlignment = 0x230;
inline constexpr uint32_t kRelocatableKernel = 0x234;
inline constexpr uint32_t kSetupData = 0x250;
inline constexpr uint32_t kInitSize = 0x260;

inline constexpr uint16_t kBootFlagValue = 0xAA55;
inline constexpr uint32_t kHeaderMagic = 0x53726448;  // "HdrS"
inline constexpr uint16_t kMinimumVersion = 0x020A;
inline constexpr uint8_t kLoadedHigh = 0x01;
inline constexpr uint8_t kCanUseHeap = 0x80;
inline constexpr uint8_t kLoaderType = 0x50;
inline constexpr uint16_t kHeapEnd = 0x2E00;
inline constexpr uint32_t kAltMemKValue = 32768;

// setup_data record of the E820 entries that do not fit the table.
inline constexpr uint32_t kSetupDataHeaderSize = 16;
inline constexpr uint32_t kSetupE820Ext = 1;

inline uint16_t Get16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline uint32_t Get32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline uint64_t Get64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void Put16(uint8_t* p, uint16_t v) { std::memcpy(p, &v, sizeof v); }
inline void Put32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, sizeof v); }
inline void Put64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, sizeof v); }

}  // namespace EfiLoader::BootParams
