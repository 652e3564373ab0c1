// The video face of the firmware: the Graphics Output Protocol, the older
// UGA Draw Protocol, the active EDID and reads of frame-buffer memory.
//
// The face only forwards; choosing a mode and finding a hidden frame
// buffer is the logic's business (efi/video.h).
#pragma once

#include <cstdint>

#include "efi/platform.h"

namespace EfiLoader {

// EFI_GRAPHICS_OUTPUT_MODE_INFORMATION, the fields the loader reads.
struct GopModeInfo {
  uint32_t HorizontalResolution = 0;
  uint32_t VerticalResolution = 0;
  uint32_t PixelFormat = 0;
  uint32_t PixelsPerScanLine = 0;
};

inline constexpr uint32_t kPixelRgbReserved8 = 0;  // PixelRedGreenBlueReserved8BitPerColor
inline constexpr uint32_t kPixelBgrReserved8 = 1;  // PixelBlueGreenRedReserved8BitPerColor

// One located EFI_GRAPHICS_OUTPUT_PROTOCOL.
class FirmwareGop {
 public:
  virtual ~FirmwareGop() = default;
  // Whether the protocol's Mode pointer is set.  The other mode queries
  // are only asked when it is.
  virtual bool HasModeRecord() = 0;
  virtual uint32_t MaxMode() = 0;
  virtual uint32_t CurrentMode() = 0;
  // Mode->Info of the current mode; false when that pointer is null.
  virtual bool CurrentInfo(GopModeInfo& info) = 0;
  virtual uint64_t FrameBufferBase() = 0;
  virtual uint64_t FrameBufferSize() = 0;
  // QueryMode.  `present` is false when the firmware gave a null or empty
  // record; the face frees the firmware's record.
  virtual EfiStatus QueryMode(uint32_t mode, GopModeInfo& info, bool& present) = 0;
  virtual EfiStatus SetMode(uint32_t mode) = 0;
  // Blt with EfiBltVideoFill of one pixel, given as red, green, blue and
  // reserved (the firmware's pixel holds blue, green, red, reserved).
  virtual EfiStatus Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                         uint8_t green, uint8_t blue, uint8_t reserved) = 0;
};

// One located EFI_UGA_DRAW_PROTOCOL.
class FirmwareUga {
 public:
  virtual ~FirmwareUga() = default;
  virtual EfiStatus GetMode(uint32_t& width, uint32_t& height, uint32_t& depth,
                            uint32_t& refresh) = 0;
  virtual EfiStatus SetMode(uint32_t width, uint32_t height, uint32_t depth,
                            uint32_t refresh) = 0;
  // Blt with EfiUgaVideoFill, as FirmwareGop::Fill.
  virtual EfiStatus Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                         uint8_t green, uint8_t blue, uint8_t reserved) = 0;
};

class FirmwareVideo {
 public:
  virtual ~FirmwareVideo() = default;
  // LocateProtocol; null when it fails or gives null.  The protocol lives
  // for the run.
  virtual FirmwareGop* Gop() = 0;
  virtual FirmwareUga* Uga() = 0;
  // LocateProtocol(EFI_EDID_ACTIVE_PROTOCOL): its SizeOfEdid and Edid
  // fields as the firmware has them (the pointer may be null).
  virtual EfiStatus ActiveEdid(uint32_t& sizeOfEdid, const uint8_t*& edid) = 0;
  // Reads `size` bytes of physical memory at `address` (frame buffers).
  virtual void ReadMemory(uint64_t address, void* buffer, uint64_t size) = 0;
};

}  // namespace EfiLoader
