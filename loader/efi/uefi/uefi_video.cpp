// The real firmware behind EfiLoader::FirmwareVideo: the Graphics Output
// Protocol, the UGA Draw Protocol, the active EDID and frame-buffer reads.
#include <cstring>

#include "efi/platform_video.h"
#include "platform.h"

namespace EfiLoader {
namespace {

// EFI_UGA_DRAW_PROTOCOL, which gnu-efi does not declare.
struct UgaPixel {
  UINT8 Blue, Green, Red, Reserved;
};
struct UgaDrawProtocol {
  EFI_STATUS(EFIAPI* GetMode)(UgaDrawProtocol*, UINT32*, UINT32*, UINT32*, UINT32*);
  EFI_STATUS(EFIAPI* SetMode)(UgaDrawProtocol*, UINT32, UINT32, UINT32, UINT32);
  EFI_STATUS(EFIAPI* Blt)(UgaDrawProtocol*, UgaPixel*, UINT32 operation, UINTN sourceX,
                          UINTN sourceY, UINTN destinationX, UINTN destinationY, UINTN width,
                          UINTN height, UINTN delta);
};
EFI_GUID kUgaDrawGuid = {0x982C298B, 0xF4FA, 0x41CB, {0xB8, 0x38, 0x77, 0xAA, 0x68, 0x8F, 0xB8, 0x39}};
constexpr UINT32 kUgaVideoFill = 0;

void* Locate(EFI_GUID& guid) {
  void* iface = nullptr;
  if (!Uefi::BootServicesAvailable() ||
      EFI_ERROR(Uefi::BootServices()->LocateProtocol(&guid, nullptr, &iface)))
    return nullptr;
  return iface;
}

class UefiGop final : public FirmwareGop {
 public:
  EFI_GRAPHICS_OUTPUT_PROTOCOL* gop = nullptr;

  bool HasModeRecord() override { return gop->Mode != nullptr; }
  uint32_t MaxMode() override { return gop->Mode->MaxMode; }
  uint32_t CurrentMode() override { return gop->Mode->Mode; }
  bool CurrentInfo(GopModeInfo& info) override {
    if (!gop->Mode->Info) return false;
    Copy(*gop->Mode->Info, info);
    return true;
  }
  uint64_t FrameBufferBase() override { return gop->Mode->FrameBufferBase; }
  uint64_t FrameBufferSize() override { return gop->Mode->FrameBufferSize; }
  EfiStatus QueryMode(uint32_t mode, GopModeInfo& info, bool& present) override {
    UINTN size = 0;
    EFI_GRAPHICS_OUTPUT_MODE_INFORMATION* record = nullptr;
    EFI_STATUS s = gop->QueryMode(gop, mode, &size, &record);
    present = !EFI_ERROR(s) && record && size != 0;
    if (present) Copy(*record, info);
    if (record) Uefi::BootServices()->FreePool(record);
    return s;
  }
  EfiStatus SetMode(uint32_t mode) override { return gop->SetMode(gop, mode); }
  EfiStatus Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                 uint8_t green, uint8_t blue, uint8_t reserved) override {
    EFI_GRAPHICS_OUTPUT_BLT_PIXEL pixel = {blue, green, red, reserved};
    return gop->Blt(gop, &pixel, EfiBltVideoFill, 0, 0, x, y, width, height, 0);
  }

 private:
  static void Copy(const EFI_GRAPHICS_OUTPUT_MODE_INFORMATION& from, GopModeInfo& to) {
    to.HorizontalResolution = from.HorizontalResolution;
    to.VerticalResolution = from.VerticalResolution;
    to.PixelFormat = static_cast<uint32_t>(from.PixelFormat);
    to.PixelsPerScanLine = from.PixelsPerScanLine;
  }
};

class UefiUga final : public FirmwareUga {
 public:
  UgaDrawProtocol* uga = nullptr;

  EfiStatus GetMode(uint32_t& width, uint32_t& height, uint32_t& depth,
                    uint32_t& refresh) override {
    UINT32 w = 0, h = 0, d = 0, r = 0;
    EFI_STATUS s = uga->GetMode(uga, &w, &h, &d, &r);
    width = w, height = h, depth = d, refresh = r;
    return s;
  }
  EfiStatus SetMode(uint32_t width, uint32_t height, uint32_t depth, uint32_t refresh) override {
    return uga->SetMode(uga, width, height, depth, refresh);
  }
  EfiStatus Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                 uint8_t green, uint8_t blue, uint8_t reserved) override {
    UgaPixel pixel = {blue, green, red, reserved};
    return uga->Blt(uga, &pixel, kUgaVideoFill, 0, 0, x, y, width, height, 0);
  }
};

class UefiVideo final : public FirmwareVideo {
 public:
  FirmwareGop* Gop() override {
    gop_.gop = static_cast<EFI_GRAPHICS_OUTPUT_PROTOCOL*>(Locate(gEfiGraphicsOutputProtocolGuid));
    return gop_.gop ? &gop_ : nullptr;
  }
  FirmwareUga* Uga() override {
    uga_.uga = static_cast<UgaDrawProtocol*>(Locate(kUgaDrawGuid));
    return uga_.uga ? &uga_ : nullptr;
  }
  EfiStatus ActiveEdid(uint32_t& size, const uint8_t*& edid) override {
    auto* p = static_cast<EFI_EDID_ACTIVE_PROTOCOL*>(Locate(gEfiEdidActiveProtocolGuid));
    if (!p) return EFI_NOT_FOUND;
    size = p->SizeOfEdid;
    edid = p->Edid;
    return EFI_SUCCESS;
  }
  void ReadMemory(uint64_t address, void* buffer, uint64_t size) override {
    // Device memory: read it once, byte by byte, as it stands.
    const volatile uint8_t* from = reinterpret_cast<const volatile uint8_t*>(address);
    auto* to = static_cast<uint8_t*>(buffer);
    for (uint64_t i = 0; i < size; ++i) to[i] = from[i];
  }

 private:
  UefiGop gop_;
  UefiUga uga_;
};

}  // namespace

FirmwareVideo* RealVideo() {
  static UefiVideo video;
  return &video;
}

}  // namespace EfiLoader
