// A kernel image and a monitor's EDID from anywhere, booted on the
// simulated machine: RunLinux must start the kernel or answer with one of
// its errors, and what it hands over must hold the boot protocol's limits.
//
// Input: byte 0 bit 0 set: the next 128 bytes are the EDID (its checksum is
// fixed up, so that the monitor's data is read); the rest is the kernel.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/error.h"
#include "efi/boot_params.h"
#include "efi/host_only/sim_firmware.h"
#include "efi/host_only/sim_memory.h"
#include "efi/host_only/sim_pci.h"
#include "efi/host_only/sim_video.h"
#include "efi/linux.h"
#include "efi/memory.h"
#include "efi/video.h"
#include "file/buf_ifile.h"

using namespace EfiLoader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  Sim::SimFirmware fw;
  Sim::ScopedFirmware scoped(fw);
  Sim::SimMemory memory;
  Sim::SimVideo video;
  Sim::SimPci pci;
  fw.memory = &memory;
  fw.video = &video;
  fw.pci = &pci;
  ResetEdidCache();
  memory.freePages = 4096;  // 16 MiB: a greedy init_size fails to allocate
  memory.map = {{7, 0x100000, 0, 0x1000, kMemoryWriteBack}, {2, 0x1100000, 0, 0x10, 1}};
  video.gop.modes = {{640, 480, 1, 640}, {800, 600, 0, 832}, {1024, 768, 1, 1024}, {1280, 1024, 1, 1280}};
  video.gop.Start(0);

  size_t at = 1;
  if ((data[0] & 1) && size >= 129) {
    video.edid.assign(data + 1, data + 129);
    Sim::FixEdidChecksum(video.edid);
    at = 129;
  }
  buf_ifile<unsigned char> kernel(data + at, size - at);
  PageAlignedMemory none;
  try {
    RunLinux(kernel, none, "console=ttyS0 vga=0x315");
    std::abort();  // only a start or an error ends it
  } catch (const Sim::KernelStarted& start) {
    const uint8_t* zp = memory.At(start.zeroPage);
    if (!zp || zp[BootParams::kE820Entries] > 128) std::abort();
    if (zp[BootParams::kCommandLineOffset + BootParams::kCommandLineMax] != 0) std::abort();
    if (!memory.exited || memory.callsAfterExit != 0) std::abort();
  } catch (const Common::Error& e) {
    switch (e.Code()) {
      case 0x1480002:  // corrupted
      case 0x1480003:  // unsupported
      case 0x40002:    // short read
      case 0x40006:    // no memory
        break;
      default:
        std::abort();
    }
    if (memory.exited) std::abort();
  }
  return 0;
}
