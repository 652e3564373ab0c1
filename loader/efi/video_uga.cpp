// The UGA Draw Protocol of older firmware: it sets a mode but tells
// neither where the frame buffer is nor how its pixels are laid out.
#include "common/error_codes.h"
#include "efi/platform.h"
#include "efi/platform_video.h"
#include "efi/video.h"

namespace EfiLoader {

using namespace Common::Codes;

FirmwareUga* EfiVideoUga::Protocol() {
  FirmwareVideo* video = Fw().Video();
  FirmwareUga* uga = video ? video->Uga() : nullptr;
  if (!uga) THROW_ERROR(VideoModeDetectFailed);
  return uga;
}

void EfiVideoUga::DrawRectangle(uint32_t x, uint32_t y, uint32_t width, uint32_t height,
                                uint8_t red, uint8_t green, uint8_t blue, uint8_t reserved) {
  if (EfiFailed(Protocol()->Fill(x, y, width, height, red, green, blue, reserved)))
    THROW_ERROR(VideoModeDetectFailed);
}

void EfiVideoUga::SelectBestMode(ScreenInfo& info, const VideoRequest& request) {
  FirmwareUga* uga = Protocol();
  uint32_t width = 0, height = 0, depth = 0, refresh = 0;
  const bool keep = !EfiFailed(uga->GetMode(width, height, depth, refresh)) && width >= 800 &&
                    width <= request.width;
  if (!keep) {
    bool set = !EfiFailed(uga->SetMode(request.width, request.height, request.depth, 60));
    static constexpr struct {
      uint32_t width, height, depth;
    } kFallbacks[] = {{1024, 768, 32}, {800, 600, 32}, {800, 600, 24}};
    for (const auto& f : kFallbacks) {
      if (set) break;
      if (request.width >= f.width && request.height >= f.height && request.depth >= f.depth)
        set = !EfiFailed(uga->SetMode(f.width, f.height, f.depth, 60));
    }
    if (!set) THROW_ERROR(VideoModeDetectFailed);
    if (EfiFailed(uga->GetMode(width, height, depth, refresh))) THROW_ERROR(VideoModeDetectFailed);
  }
  if (width == 0 || height == 0 || depth == 0) THROW_ERROR(VideoModeDetectFailed);
  // Where the pixels are and how they look is found in PCI memory later.
  info.lfb_width = static_cast<uint16_t>(width);
  info.lfb_height = static_cast<uint16_t>(height);
  info.lfb_depth = static_cast<uint16_t>(depth);
}

}  // namespace EfiLoader
