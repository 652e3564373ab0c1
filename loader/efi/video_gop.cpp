// The Graphics Output Protocol: every mode the firmware offers is judged by
// the monitor's data and the request, and the best one is set.
#include <cstring>

#include "common/error_codes.h"
#include "efi/platform.h"
#include "efi/platform_video.h"
#include "efi/video.h"

namespace EfiLoader {

using namespace Common::Codes;

bool ConvertGopMode(const GopModeInfo& mode, uint64_t frameBufferBase, uint64_t frameBufferSize,
                    ScreenInfo& info) {
  std::memset(&info, 0, sizeof info);
  info.lfb_depth = 32;
  info.red_size = info.green_size = info.blue_size = info.rsvd_size = 8;
  info.rsvd_pos = 24;
  info.green_pos = 8;
  if (mode.PixelFormat == kPixelRgbReserved8) {
    info.red_pos = 0;
    info.blue_pos = 16;
  } else if (mode.PixelFormat == kPixelBgrReserved8) {
    info.red_pos = 16;
    info.blue_pos = 0;
  } else {
    return false;
  }
  info.lfb_size = static_cast<uint32_t>(frameBufferSize);
  SetFrameBufferAddress(info, frameBufferBase);
  info.lfb_width = static_cast<uint16_t>(mode.HorizontalResolution);
  info.lfb_height = static_cast<uint16_t>(mode.VerticalResolution);
  info.lfb_linelength = static_cast<uint16_t>(4 * mode.PixelsPerScanLine);
  return true;
}

FirmwareGop* EfiVideoGop::Protocol() {
  FirmwareVideo* video = Fw().Video();
  FirmwareGop* gop = video ? video->Gop() : nullptr;
  if (!gop) THROW_ERROR(VideoModeDetectFailed);
  return gop;
}

void EfiVideoGop::DrawRectangle(uint32_t x, uint32_t y, uint32_t width, uint32_t height,
                                uint8_t red, uint8_t green, uint8_t blue, uint8_t reserved) {
  if (EfiFailed(Protocol()->Fill(x, y, width, height, red, green, blue, reserved)))
    THROW_ERROR(VideoModeDetectFailed);
}

void EfiVideoGop::SelectBestMode(ScreenInfo& info, const VideoRequest& request) {
  FirmwareGop* gop = Protocol();
  if (!gop->HasModeRecord()) THROW_ERROR(VideoModeDetectFailed);
  const uint64_t base = gop->FrameBufferBase();
  const uint64_t size = gop->FrameBufferSize();
  if (base == 0 || size == 0) THROW_ERROR(VideoNoLinearFramebuffer);

  const Edid* edid = GetEdid();
  VideoMode best;
  bool haveBest = false;
  const uint32_t maxMode = gop->MaxMode();
  for (uint32_t number = 0; number < maxMode; ++number) {
    GopModeInfo mode;
    bool present = false;
    if (EfiFailed(gop->QueryMode(number, mode, present)) || !present) continue;
    VideoMode candidate;
    candidate.mode = number;
    if (!ConvertGopMode(mode, base, size, candidate.info)) continue;
    if (!MonitorAccepts(edid, candidate)) continue;
    if (candidate.info.lfb_width > request.width || candidate.info.lfb_height > request.height ||
        candidate.info.lfb_depth > request.depth)
      continue;
    // The last of an ascending order wins; among equals, the later mode.
    if (!haveBest || !ModeLess(candidate, best)) {
      best = candidate;
      haveBest = true;
    }
  }

  if (haveBest && best.mode != gop->CurrentMode() && !EfiFailed(gop->SetMode(best.mode))) {
    // The frame buffer may move with the mode; the firmware's record has
    // the address for the mode now set.
    const uint64_t newBase = gop->FrameBufferBase();
    if (newBase != 0 && newBase != base) {
      best.info.lfb_base = 0;
      best.info.ext_lfb_base = 0;
      best.info.capabilities &= ~kVideoCapability64BitBase;
      SetFrameBufferAddress(best.info, newBase);
      best.info.lfb_size = static_cast<uint32_t>(gop->FrameBufferSize());
    }
    info = best.info;
    return;
  }

  GopModeInfo current;
  if (!gop->CurrentInfo(current)) THROW_ERROR(VideoModeDetectFailed);
  ScreenInfo converted;
  if (!ConvertGopMode(current, gop->FrameBufferBase(), gop->FrameBufferSize(), converted))
    THROW_ERROR(VideoUnsupportedPixelFormat);
  info = converted;
}

}  // namespace EfiLoader
