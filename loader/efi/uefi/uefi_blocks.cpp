// The real firmware's block devices behind EfiLoader::FirmwareBlocks: the
// handle database, device paths and the Block I/O protocol, and the
// Unicode collation service for FAT names.  Forwarding only; the disk layer
// decides.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "efi/platform_blocks.h"
#include "filesys/collation.h"
#include "platform.h"

namespace EfiLoader {
namespace {

EFI_BOOT_SERVICES* BS() { return Uefi::BootServices(); }

class UefiBlockIo final : public FirmwareBlockIo {
 public:
  UefiBlockIo(EFI_HANDLE handle, EFI_BLOCK_IO* io) : handle_(handle), io_(io) {}
  ~UefiBlockIo() override {
    BS()->CloseProtocol(handle_, &gEfiBlockIoProtocolGuid, Uefi::ImageHandle(), nullptr);
  }
  BlockMedia Media() override {
    BlockMedia m;
    const EFI_BLOCK_IO_MEDIA* media = io_->Media;
    if (media == nullptr) return m;
    m.MediaId = media->MediaId;
    m.RemovableMedia = media->RemovableMedia;
    m.MediaPresent = media->MediaPresent;
    m.LogicalPartition = media->LogicalPartition;
    m.ReadOnly = media->ReadOnly;
    m.BlockSize = media->BlockSize;
    m.LastBlock = media->LastBlock;
    return m;
  }
  EfiStatus ReadBlocks(uint32_t mediaId, uint64_t lba, uint64_t bytes, void* buffer) override {
    return io_->ReadBlocks(io_, mediaId, lba, bytes, buffer);
  }
  EfiStatus WriteBlocks(uint32_t mediaId, uint64_t lba, uint64_t bytes, const void* buffer) override {
    return io_->WriteBlocks(io_, mediaId, lba, bytes, const_cast<void*>(buffer));
  }
  EfiStatus FlushBlocks() override { return io_->FlushBlocks(io_); }

 private:
  EFI_HANDLE handle_;
  EFI_BLOCK_IO* io_;
};

class UefiCollation final : public UnicodeCollation {
 public:
  explicit UefiCollation(EFI_UNICODE_COLLATION_INTERFACE* c) : c_(c) {}
  void StrUpr(std::u16string& text) override {
    std::u16string s = text;
    s.push_back(0);
    c_->StrUpr(c_, reinterpret_cast<CHAR16*>(s.data()));
    text.assign(s.c_str());
  }
  bool FatToStr(const uint8_t* fat, size_t size, std::u16string& text) override {
    std::vector<CHAR16> out(size + 1, 0);
    std::vector<CHAR8> in(fat, fat + size);
    c_->FatToStr(c_, size, in.data(), out.data());
    text.assign(reinterpret_cast<const char16_t*>(out.data()));
    return true;
  }
  bool StrToFat(const std::u16string& text, std::string& fat) override {
    std::u16string s = text;
    s.push_back(0);
    std::vector<CHAR8> out(text.size() + 1, 0);
    // The service answers true when it had to replace a character.
    const BOOLEAN lossy = c_->StrToFat(c_, reinterpret_cast<CHAR16*>(s.data()), text.size(), out.data());
    fat.assign(reinterpret_cast<const char*>(out.data()), text.size());
    return !lossy;
  }

 private:
  EFI_UNICODE_COLLATION_INTERFACE* c_;
};

class UefiBlocks final : public FirmwareBlocks {
 public:
  EfiStatus LocateDevicePathHandles(uint64_t& bytes, EfiHandle* handles) override {
    UINTN size = bytes;
    EFI_STATUS s = BS()->LocateHandle(ByProtocol, &gEfiDevicePathProtocolGuid, nullptr, &size,
                                      reinterpret_cast<EFI_HANDLE*>(handles));
    bytes = size;
    return s;
  }

  EfiStatus DevicePath(EfiHandle handle, std::vector<uint8_t>& path) override {
    path.clear();
    void* iface = nullptr;
    EFI_STATUS s = BS()->HandleProtocol(handle, &gEfiDevicePathProtocolGuid, &iface);
    if (EFI_ERROR(s) || iface == nullptr) return s;
    // Node by node up to the end of the whole path; a broken length ends
    // the copy and the disk layer sees a path without its end.
    const auto* p = static_cast<const uint8_t*>(iface);
    constexpr size_t kLimit = 0x10000;
    for (size_t i = 0; i + 4 <= kLimit;) {
      const size_t len = size_t(p[i + 2]) | size_t(p[i + 3]) << 8;
      if (len < 4 || i + len > kLimit) break;
      path.insert(path.end(), p + i, p + i + len);
      if ((p[i] & 0x7F) == 0x7F && p[i + 1] == 0xFF) break;
      i += len;
    }
    return EFI_SUCCESS;
  }

  EfiStatus OpenBlockIo(EfiHandle handle, std::unique_ptr<FirmwareBlockIo>& io) override {
    io.reset();
    void* iface = nullptr;
    EFI_STATUS s = BS()->OpenProtocol(handle, &gEfiBlockIoProtocolGuid, &iface, Uefi::ImageHandle(),
                                      nullptr, EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
    if (EFI_ERROR(s)) return s;
    if (iface == nullptr) return EFI_UNSUPPORTED;
    io = std::make_unique<UefiBlockIo>(handle, static_cast<EFI_BLOCK_IO*>(iface));
    return EFI_SUCCESS;
  }

  UnicodeCollation* Collation() override {
    // Looked up once; an absent service stays absent for the run.
    if (!looked_) {
      looked_ = true;
      void* iface = nullptr;
      if (!EFI_ERROR(BS()->LocateProtocol(&gEfiUnicodeCollationProtocolGuid, nullptr, &iface)) && iface)
        collation_ = std::make_unique<UefiCollation>(static_cast<EFI_UNICODE_COLLATION_INTERFACE*>(iface));
    }
    return collation_.get();
  }

 private:
  bool looked_ = false;
  std::unique_ptr<UefiCollation> collation_;
};

}  // namespace

FirmwareBlocks* RealBlocks() {
  static UefiBlocks blocks;
  return &blocks;
}

}  // namespace EfiLoader
