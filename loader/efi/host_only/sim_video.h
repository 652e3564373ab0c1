// Simulated screens for host tests: a GOP with a list of modes and a frame
// buffer that Blt really fills, a UGA whose frame buffer lies hidden in
// memory, an EDID block, and reads of physical memory that see those
// frame buffers (anything else reads as all ones, like an empty bus).
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "efi/platform_video.h"

namespace EfiLoader::Sim {

// A frame buffer in simulated physical memory.
struct SimFrameBuffer {
  uint64_t address = 0;
  uint32_t width = 0, height = 0;
  uint32_t stride = 0;          // pixels per line
  uint32_t bytesPerPixel = 4;   // 3 or 4
  bool redFirst = false;        // bytes R G B (else B G R) in each pixel
  std::vector<uint8_t> bytes;

  void Resize(uint32_t w, uint32_t h, uint32_t pixelsPerLine);
  void Fill(uint32_t x, uint32_t y, uint32_t w, uint32_t h, uint8_t r, uint8_t g, uint8_t b);
  bool Contains(uint64_t at) const { return at >= address && at - address < bytes.size(); }
};

class SimGop final : public FirmwareGop {
 public:
  std::vector<GopModeInfo> modes;
  std::set<uint32_t> queryFails;      // QueryMode fails for these
  std::set<uint32_t> emptyRecords;    // QueryMode gives a null record for these
  std::set<uint32_t> setModeFails;
  std::vector<uint64_t> modeBases;    // frame buffer address by mode (empty: `base`)
  uint32_t current = 0;
  uint64_t base = 0x80000000;
  uint64_t sizeOverride = ~0ull;      // FrameBufferSize, else stride x height x 4
  bool modeRecord = true;
  bool currentInfoNull = false;
  bool fillFails = false;
  std::vector<uint32_t> setModeCalls;
  SimFrameBuffer fb;

  // Makes `mode` current without the loader (the firmware's start-up mode).
  void Start(uint32_t mode);

  bool HasModeRecord() override { return modeRecord; }
  uint32_t MaxMode() override { return static_cast<uint32_t>(modes.size()); }
  uint32_t CurrentMode() override { return current; }
  bool CurrentInfo(GopModeInfo& info) override;
  uint64_t FrameBufferBase() override { return fb.address; }
  uint64_t FrameBufferSize() override;
  EfiStatus QueryMode(uint32_t mode, GopModeInfo& info, bool& present) override;
  EfiStatus SetMode(uint32_t mode) override;
  EfiStatus Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                 uint8_t green, uint8_t blue, uint8_t reserved) override;
};

struct UgaMode {
  uint32_t width, height, depth;
};

class SimUga final : public FirmwareUga {
 public:
  std::vector<UgaMode> supported;     // what SetMode accepts
  UgaMode mode{0, 0, 0};
  uint32_t refresh = 60;
  bool getModeFails = false;
  bool fillFails = false;
  std::vector<UgaMode> setModeCalls;
  SimFrameBuffer fb;                  // its address is only found through PCI
  uint32_t extraStride = 0;           // pixels of padding at each line's end

  EfiStatus GetMode(uint32_t& width, uint32_t& height, uint32_t& depth, uint32_t& rate) override;
  EfiStatus SetMode(uint32_t width, uint32_t height, uint32_t depth, uint32_t rate) override;
  EfiStatus Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                 uint8_t green, uint8_t blue, uint8_t reserved) override;
};

class SimVideo final : public FirmwareVideo {
 public:
  SimGop gop;
  SimUga uga;
  bool hasGop = true;
  bool hasUga = false;
  std::vector<uint8_t> edid;          // empty: no EDID protocol
  bool edidNullPointer = false;
  uint32_t edidSizeOverride = ~0u;
  int edidLocates = 0;
  uint64_t memoryReads = 0;

  FirmwareGop* Gop() override { return hasGop ? &gop : nullptr; }
  FirmwareUga* Uga() override { return hasUga ? &uga : nullptr; }
  EfiStatus ActiveEdid(uint32_t& size, const uint8_t*& data) override;
  void ReadMemory(uint64_t address, void* buffer, uint64_t size) override;
};

// A valid EDID 1.3 block without timings, for tests to change and then
// seal with FixEdidChecksum.
std::vector<uint8_t> BlankEdid();
void FixEdidChecksum(std::vector<uint8_t>& edid);

}  // namespace EfiLoader::Sim
