// The screen for the kernel: the best graphics mode that firmware and
// monitor allow, and the `screen_info` block of the zero page that tells
// the kernel's console where the frame buffer is and how its pixels look.
//
// The firmware may hide the frame buffer's address and layout (UGA always
// does); they are then found by drawing test colours and looking for them
// in PCI memory.  A failure never stops the boot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "efi/platform_video.h"

namespace EfiLoader {

// Linux's struct screen_info, the first 64 bytes of the zero page; only
// the fields the loader writes are named.  Packed as the kernel has it
// (capabilities and ext_lfb_base lie off their natural alignment); every
// object of it starts 8-aligned, so that the other fields are aligned.
#pragma pack(push, 1)
struct alignas(8) ScreenInfo {
  uint8_t orig_x;
  uint8_t orig_y;
  uint16_t ext_mem_k;
  uint8_t unused1[0x0F - 0x04];
  uint8_t orig_video_isVGA;
  uint16_t orig_video_points;
  uint16_t lfb_width;
  uint16_t lfb_height;
  uint16_t lfb_depth;
  uint32_t lfb_base;
  uint32_t lfb_size;
  uint16_t cl_magic;
  uint16_t cl_offset;
  uint16_t lfb_linelength;
  uint8_t red_size;
  uint8_t red_pos;
  uint8_t green_size;
  uint8_t green_pos;
  uint8_t blue_size;
  uint8_t blue_pos;
  uint8_t rsvd_size;
  uint8_t rsvd_pos;
  uint16_t vesapm_seg;
  uint16_t vesapm_off;
  uint16_t pages;
  uint16_t vesa_attributes;
  uint32_t capabilities;
  uint32_t ext_lfb_base;
  uint8_t reserved[2];
};
#pragma pack(pop)
static_assert(sizeof(ScreenInfo) == 64);
static_assert(offsetof(ScreenInfo, orig_video_isVGA) == 0x0F);
static_assert(offsetof(ScreenInfo, lfb_width) == 0x12);
static_assert(offsetof(ScreenInfo, lfb_base) == 0x18);
static_assert(offsetof(ScreenInfo, lfb_linelength) == 0x24);
static_assert(offsetof(ScreenInfo, red_size) == 0x26);
static_assert(offsetof(ScreenInfo, rsvd_pos) == 0x2D);
static_assert(offsetof(ScreenInfo, capabilities) == 0x36);
static_assert(offsetof(ScreenInfo, ext_lfb_base) == 0x3A);

inline constexpr uint32_t kVideoCapability64BitBase = 1u << 1;
inline constexpr uint8_t kVideoTypeEfi = 0x70;

// Stores a frame buffer address by the one rule: low half in lfb_base; a
// nonzero high half sets capabilities bit 1 and goes to ext_lfb_base.
void SetFrameBufferAddress(ScreenInfo& info, uint64_t address);
// The address back; 0 when unknown.
uint64_t FrameBufferAddress(const ScreenInfo& info);

struct VideoRequest {
  uint32_t width = 1024;
  uint32_t height = 768;
  uint32_t depth = 32;
};

// The request of the last "vga=" word of the command line, or the default.
VideoRequest GetVideoRequest(const std::string& commandLine);

// Fills the 64 bytes at `screenInfo` from the first video object that
// succeeds, GOP then UGA.  When both fail the block is zeroed, the GOP's
// error is shown for 10 seconds and the result is false.
bool SetupVideo(uint8_t* screenInfo, const VideoRequest& request);

// A candidate of the mode search.
struct VideoMode {
  ScreenInfo info{};
  uint32_t mode = 0;
  uint8_t preferred = 0;
  uint8_t refresh = 0;
};

// One firmware interface to the screen.
class EfiVideo {
 public:
  virtual ~EfiVideo() = default;
  virtual const char16_t* GetName() const = 0;
  // Puts the display in a mode and fills `info` as far as the firmware
  // can tell.  Throws on failure.
  virtual void SelectBestMode(ScreenInfo& info, const VideoRequest& request) = 0;
  // Fills an area with one colour through the firmware's Blt; throws
  // "Failed to detect the graphic output mode." on failure.
  virtual void DrawRectangle(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                             uint8_t green, uint8_t blue, uint8_t reserved) = 0;
};

class EfiVideoGop final : public EfiVideo {
 public:
  const char16_t* GetName() const override { return u"GOP"; }
  void SelectBestMode(ScreenInfo& info, const VideoRequest& request) override;
  void DrawRectangle(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                     uint8_t green, uint8_t blue, uint8_t reserved) override;

 private:
  FirmwareGop* Protocol();
};

class EfiVideoUga final : public EfiVideo {
 public:
  const char16_t* GetName() const override { return u"UGA"; }
  void SelectBestMode(ScreenInfo& info, const VideoRequest& request) override;
  void DrawRectangle(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                     uint8_t green, uint8_t blue, uint8_t reserved) override;

 private:
  FirmwareUga* Protocol();
};

// Converts a firmware mode record (PixelFormat 0 or 1 only) into a
// complete screen_info; false for any other pixel format.
bool ConvertGopMode(const GopModeInfo& mode, uint64_t frameBufferBase, uint64_t frameBufferSize,
                    ScreenInfo& info);

// ---- the monitor

struct Edid {
  uint8_t bytes[128];
};
// The active EDID, fetched once per run and kept, also when absent.
const Edid* GetEdid();
void ResetEdidCache();
// True if `block` (at least 128 bytes) is an EDID 1.x block.
bool IsValidEdid(const uint8_t* block, uint32_t size);

struct MonitorLimits {
  uint32_t preferredWidth = 0;
  uint32_t preferredHeight = 0;
  uint8_t minVertical = 0;
  uint8_t maxVertical = 0;
  uint8_t minHorizontal = 0;
  uint8_t maxHorizontal = 0;
  uint32_t maxPixelClock = 0;  // MHz
};
// False when there is no EDID.
bool GetMonitorLimits(const Edid* edid, MonitorLimits& limits);
// The refresh rate at which a width x height mode stays inside the
// monitor's range limits, 0 if none.
uint8_t FindRefreshRate(const MonitorLimits& limits, uint32_t width, uint32_t height);
// Whether the monitor takes the mode (step by step: timings the EDID
// lists, its range limits, else 4:3 only); sets `mode.refresh` and
// `mode.preferred` on the way.
bool MonitorAccepts(const Edid* edid, VideoMode& mode);
// The sort order of candidates: true if `a` is worse than `b`.
bool ModeLess(const VideoMode& a, const VideoMode& b);

// ---- the frame buffer behind the mode

void PciDetectFbBegin(EfiVideo& video, ScreenInfo& info);
void ValidateColorSettings(const ScreenInfo& info);
void DetectLineLength(EfiVideo& video, ScreenInfo& info);

}  // namespace EfiLoader
