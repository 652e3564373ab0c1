// A simulated machine for the Linux boot tests: the loader's volume, pages,
// a screen and PCI, plus a maker of small bzImage files whose header says
// what a test wants.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "../loader/sim_fixture.h"
#include "efi/boot_params.h"
#include "efi/host_only/sim_memory.h"
#include "efi/host_only/sim_pci.h"
#include "efi/host_only/sim_video.h"
#include "efi/video.h"

namespace linux_test {

namespace BP = EfiLoader::BootParams;

// The fields of a synthetic bzImage.  The defaults make a valid one: four
// setup sectors behind the boot sector, protocol 2.15, relocatable.
struct KernelSpec {
  uint8_t setupSects = 4;
  uint16_t bootFlag = 0xAA55;
  uint8_t jumpByte = 0x6A;  // header ends at 0x26C, as in current kernels
  uint32_t magic = 0x53726448;
  uint16_t version = 0x020F;
  uint8_t loadFlags = 0x01;
  uint32_t alignment = 0x1000;
  uint8_t relocatable = 1;
  uint32_t initSize = 0x10000;
  std::string versionString = "6.1.0-test (builder@host) #1 SMP";
  uint32_t bodySize = 0x3000;
  uint32_t truncateTo = 0;  // nonzero: the file is cut to this many bytes

  uint64_t SetupSize() const { return setupSects ? (setupSects + 1ull) * 512 : 2560; }
};

inline uint8_t BodyByte(uint64_t i) { return static_cast<uint8_t>(i * 7 + 3); }

inline std::string MakeKernel(const KernelSpec& s) {
  std::string k(s.SetupSize() + s.bodySize, '\0');
  auto* p = reinterpret_cast<uint8_t*>(k.data());
  // Bytes the loader must clear before the header and behind it.
  for (size_t i = 0; i < 0x1F1; ++i) p[i] = 0xEE;
  for (size_t i = 0x202 + s.jumpByte; i < s.SetupSize(); ++i) p[i] = 0xDD;
  p[BP::kSetupSects] = s.setupSects;
  BP::Put16(p + BP::kBootFlag, s.bootFlag);
  p[0x200] = 0xEB;
  p[BP::kJumpSecondByte] = s.jumpByte;
  BP::Put32(p + BP::kHeader, s.magic);
  BP::Put16(p + BP::kVersion, s.version);
  p[BP::kLoadFlags] = s.loadFlags;
  BP::Put32(p + BP::kKernelAlignment, s.alignment);
  p[BP::kRelocatableKernel] = s.relocatable;
  BP::Put32(p + BP::kInitSize, s.initSize);
  BP::Put64(p + BP::kSetupData, 0);
  if (!s.versionString.empty()) {
    const uint16_t at = 0x300;  // inside the second setup sector
    BP::Put16(p + BP::kKernelVersion, at);
    std::memcpy(p + 512 + at, s.versionString.c_str(), s.versionString.size() + 1);
  } else {
    BP::Put16(p + BP::kKernelVersion, 0);
  }
  for (uint64_t i = 0; i < s.bodySize; ++i) p[s.SetupSize() + i] = BodyByte(i);
  if (s.truncateTo) k.resize(s.truncateTo);
  return k;
}

// A QEMU-like machine: a 4:3 GOP at 1024x768 with a few modes, no EDID, no
// UGA, and a memory map of a dozen regions.
class LinuxTest : public loader_test::SimTest {
 protected:
  LinuxTest() {
    fw.memory = &memory;
    fw.video = &video;
    fw.pci = &pci;
    EfiLoader::ResetEdidCache();
    video.gop.modes = {{640, 480, 1, 640}, {800, 600, 1, 800}, {1024, 768, 1, 1024},
                       {1280, 1024, 1, 1280}, {1920, 1080, 1, 1920}};
    video.gop.Start(0);
    memory.map = {
        {3, 0x0, 0, 0xA0, 0xF},                 // boot services code
        {7, 0xA0000, 0, 0x60, 0x1},             // uncached conventional: reserved
        {7, 0x100000, 0, 0x700, 0xF},
        {10, 0x800000, 0, 0x8, 0xF},            // ACPI NVS
        {7, 0x808000, 0, 0x3, 0xF},
        {4, 0x80B000, 0, 0x5, 0xF},
        {7, 0x810000, 0, 0x7EF0, 0xF},
        {2, 0x8700000, 0, 0x100, 0xF},          // adjacent RAM types merge
        {9, 0x1F000000, 0, 0x10, 0xF},          // ACPI reclaim
        {6, 0x1F010000, 0, 0x20, 0x800000000000000Full},  // runtime data
        {5, 0x1F030000, 0, 0x10, 0x800000000000000Full},  // runtime code
        {8, 0x1F040000, 0, 0x1, 0xF},           // unusable
    };
  }
  ~LinuxTest() override { EfiLoader::ResetEdidCache(); }

  // The zero page as the kernel got it.
  const uint8_t* ZeroPage() {
    return memory.kernelStarted ? memory.At(memory.start.zeroPage) : nullptr;
  }

  EfiLoader::Sim::SimMemory memory;
  EfiLoader::Sim::SimVideo video;
  EfiLoader::Sim::SimPci pci;
};

}  // namespace linux_test
