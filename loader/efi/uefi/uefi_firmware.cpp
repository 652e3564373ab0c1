// The real firmware behind EfiLoader::Firmware.  Each operation forwards
// to one boot or runtime service and translates types; decisions belong
// to the logic above.
#include <cstring>
#include <memory>

#include "efi/platform.h"
#include "efi/platform_blocks.h"
#include "platform.h"

namespace EfiLoader {

// The further faces, each in its own file.
FirmwareMemory* RealMemory();
FirmwareVideo* RealVideo();
FirmwarePci* RealPci();

namespace {

EFI_BOOT_SERVICES* BS() { return Uefi::BootServices(); }
EFI_RUNTIME_SERVICES* RT() { return Uefi::RuntimeServices(); }
EFI_SYSTEM_TABLE* ST() { return Uefi::SystemTable(); }

EFI_GUID ToEfi(const Common::GUID& g) {
  EFI_GUID e;
  static_assert(sizeof e == sizeof g);
  std::memcpy(&e, &g, sizeof e);
  return e;
}

Common::GUID FromEfi(const EFI_GUID& e) {
  Common::GUID g;
  std::memcpy(&g, &e, sizeof g);
  return g;
}

// A zero-terminated copy of a wide string for the firmware.
std::u16string Terminated(const std::u16string& s) {
  std::u16string t = s;
  t.push_back(0);
  return t;
}

CHAR16* Wide(std::u16string& s) { return reinterpret_cast<CHAR16*>(s.data()); }

template <typename T>
T* GetProtocol(EFI_HANDLE handle, EFI_GUID& guid) {
  void* iface = nullptr;
  if (!handle || EFI_ERROR(BS()->HandleProtocol(handle, &guid, &iface))) return nullptr;
  return static_cast<T*>(iface);
}

EFI_LOADED_IMAGE* LoadedImage(EFI_HANDLE image) {
  return GetProtocol<EFI_LOADED_IMAGE>(image, gEfiLoadedImageProtocolGuid);
}

// Device path bytes in pool memory, as the services that take one expect.
struct PoolDevicePath {
  explicit PoolDevicePath(const std::vector<uint8_t>& bytes) {
    if (EFI_ERROR(BS()->AllocatePool(EfiLoaderData, bytes.size(), &block))) block = nullptr;
    if (block) std::memcpy(block, bytes.data(), bytes.size());
  }
  ~PoolDevicePath() {
    if (block) BS()->FreePool(block);
  }
  EFI_DEVICE_PATH* get() const { return static_cast<EFI_DEVICE_PATH*>(block); }
  void* block = nullptr;
};

class UefiFile final : public FirmwareFile {
 public:
  explicit UefiFile(EFI_FILE_HANDLE h) : h_(h) {}
  ~UefiFile() override {
    if (h_) h_->Close(h_);
  }
  EfiStatus Read(void* buffer, uint64_t& size) override {
    UINTN n = size;
    EFI_STATUS s = h_->Read(h_, &n, buffer);
    size = n;
    return s;
  }
  EfiStatus Write(const void* buffer, uint64_t& size) override {
    UINTN n = size;
    EFI_STATUS s = h_->Write(h_, &n, const_cast<void*>(buffer));
    size = n;
    return s;
  }
  EfiStatus GetPosition(uint64_t& position) override {
    UINT64 p = 0;
    EFI_STATUS s = h_->GetPosition(h_, &p);
    position = p;
    return s;
  }
  EfiStatus SetPosition(uint64_t position) override { return h_->SetPosition(h_, position); }
  EfiStatus Flush() override { return h_->Flush(h_); }
  EfiStatus Delete() override {
    EFI_FILE_HANDLE h = h_;
    h_ = nullptr;
    EFI_STATUS s = h->Delete(h);  // closes the handle whatever the result
    delete this;
    return s;
  }
  EfiStatus GetInfo(uint64_t& attribute, uint64_t& fileSize) override {
    UINTN size = 0;
    EFI_STATUS s = h_->GetInfo(h_, &gEfiFileInfoGuid, &size, nullptr);
    if (s != EFI_BUFFER_TOO_SMALL || size == 0) return EFI_ERROR(s) ? s : EFI_DEVICE_ERROR;
    void* block = nullptr;
    if (EFI_ERROR(BS()->AllocatePool(EfiLoaderData, size, &block))) return EFI_OUT_OF_RESOURCES;
    s = h_->GetInfo(h_, &gEfiFileInfoGuid, &size, block);
    if (!EFI_ERROR(s)) {
      auto* info = static_cast<EFI_FILE_INFO*>(block);
      attribute = info->Attribute;
      fileSize = info->FileSize;
    }
    BS()->FreePool(block);
    return s;
  }
  EfiStatus Open(const std::u16string& path, uint64_t mode,
                 std::unique_ptr<FirmwareFile>& file) override {
    std::u16string name = Terminated(path);
    EFI_FILE_HANDLE opened = nullptr;
    EFI_STATUS s = h_->Open(h_, &opened, Wide(name), mode, 0);
    if (!EFI_ERROR(s) && opened) file = std::make_unique<UefiFile>(opened);
    return s;
  }

 private:
  EFI_FILE_HANDLE h_;
};

class UefiPxe final : public FirmwarePxe {
 public:
  explicit UefiPxe(EFI_PXE_BASE_CODE* pxe) : pxe_(pxe) {}
  bool UsingIpv6() override { return pxe_->Mode->UsingIpv6; }
  bool PacketReceived(Packet which) override {
    switch (which) {
      case Packet::PxeReply: return pxe_->Mode->PxeReplyReceived;
      case Packet::ProxyOffer: return pxe_->Mode->ProxyOfferReceived;
      default: return pxe_->Mode->DhcpAckReceived;
    }
  }
  std::vector<uint8_t> GetPacket(Packet which) override {
    const EFI_PXE_BASE_CODE_PACKET* p = which == Packet::PxeReply     ? &pxe_->Mode->PxeReply
                                        : which == Packet::ProxyOffer ? &pxe_->Mode->ProxyOffer
                                                                      : &pxe_->Mode->DhcpAck;
    auto* bytes = reinterpret_cast<const uint8_t*>(p);
    return std::vector<uint8_t>(bytes, bytes + sizeof *p);
  }
  EfiStatus TftpGetFileSize(const uint8_t serverIp[4], const std::string& name,
                            uint64_t blockSize, uint64_t& size) override {
    return Mtftp(EFI_PXE_BASE_CODE_TFTP_GET_FILE_SIZE, serverIp, name, blockSize, nullptr, size);
  }
  EfiStatus TftpReadFile(const uint8_t serverIp[4], const std::string& name, uint64_t blockSize,
                         void* buffer, uint64_t& size) override {
    return Mtftp(EFI_PXE_BASE_CODE_TFTP_READ_FILE, serverIp, name, blockSize, buffer, size);
  }

 private:
  EfiStatus Mtftp(EFI_PXE_BASE_CODE_TFTP_OPCODE op, const uint8_t serverIp[4],
                  const std::string& name, uint64_t blockSize, void* buffer, uint64_t& size) {
    EFI_IP_ADDRESS server;
    std::memset(&server, 0, sizeof server);
    std::memcpy(&server, serverIp, 4);
    std::string file = name;
    file.push_back(0);
    UINTN block = blockSize;
    UINT64 n = size;
    EFI_STATUS s = pxe_->Mtftp(pxe_, op, buffer, FALSE, &n, &block, &server,
                               reinterpret_cast<UINT8*>(file.data()), nullptr, FALSE);
    size = n;
    return s;
  }
  EFI_PXE_BASE_CODE* pxe_;
};

class UefiFirmware final : public Firmware {
 public:
  uint32_t SystemTableRevision() override { return ST()->Hdr.Revision; }
  EfiHandle ImageHandle() override { return Uefi::ImageHandle(); }

  void OutputString(const std::u16string& text) override {
    if (!Uefi::BootServicesAvailable() || !ST()->ConOut) return;
    // The console wants CR LF; the logic writes LF.
    std::u16string out;
    out.reserve(text.size() + 8);
    for (char16_t c : text) {
      if (c == u'\n') out.push_back(u'\r');
      out.push_back(c);
    }
    out.push_back(0);
    ST()->ConOut->OutputString(ST()->ConOut, Wide(out));
  }
  bool QueryMode(uint64_t& columns, uint64_t& rows) override {
    UINTN c = 0, r = 0;
    SIMPLE_TEXT_OUTPUT_INTERFACE* out = ST()->ConOut;
    if (!out || EFI_ERROR(out->QueryMode(out, out->Mode->Mode, &c, &r))) return false;
    columns = c;
    rows = r;
    return true;
  }
  void SetCursorPosition(uint64_t column, uint64_t row) override {
    ST()->ConOut->SetCursorPosition(ST()->ConOut, column, row);
  }
  void CursorPosition(int32_t& column, int32_t& row) override {
    column = ST()->ConOut->Mode->CursorColumn;
    row = ST()->ConOut->Mode->CursorRow;
  }
  void EnableCursor(bool visible) override {
    ST()->ConOut->EnableCursor(ST()->ConOut, visible ? TRUE : FALSE);
  }
  bool CursorState(int32_t& row, bool& visible) override {
    SIMPLE_TEXT_OUTPUT_INTERFACE* out = ST()->ConOut;
    if (!out || !out->Mode) return false;
    row = out->Mode->CursorRow;
    visible = out->Mode->CursorVisible;
    return true;
  }

  bool HasConsoleInput() override { return ST()->ConIn != nullptr; }
  EfiStatus ConInReset(bool extended) override {
    return ST()->ConIn->Reset(ST()->ConIn, extended ? TRUE : FALSE);
  }
  EfiStatus ReadKeyStroke(InputKey& key) override {
    EFI_INPUT_KEY k{};
    EFI_STATUS s = ST()->ConIn->ReadKeyStroke(ST()->ConIn, &k);
    key.ScanCode = k.ScanCode;
    key.UnicodeChar = static_cast<char16_t>(k.UnicodeChar);
    return s;
  }
  EfiEvent WaitForKeyEvent() override { return ST()->ConIn->WaitForKey; }
  EfiStatus CreateTimerEvent(EfiEvent& event) override {
    EFI_EVENT e = nullptr;
    EFI_STATUS s = BS()->CreateEvent(EVT_TIMER, 0, nullptr, nullptr, &e);
    event = e;
    return s;
  }
  EfiStatus SetTimerRelative(EfiEvent event, uint64_t trigger100ns) override {
    return BS()->SetTimer(event, TimerRelative, trigger100ns);
  }
  EfiStatus WaitForEvent(const EfiEvent* events, uint64_t count, uint64_t& index) override {
    UINTN i = 0;
    EFI_STATUS s = BS()->WaitForEvent(count, const_cast<EFI_EVENT*>(events), &i);
    index = i;
    return s;
  }
  EfiStatus CloseEvent(EfiEvent event) override { return BS()->CloseEvent(event); }
  void Stall(uint64_t microseconds) override { BS()->Stall(microseconds); }
  void SetWatchdogTimer(uint64_t seconds) override {
    BS()->SetWatchdogTimer(seconds, 0, 0, nullptr);
  }
  void ResetSystem(ResetType type) override {
    EFI_RESET_TYPE t = type == ResetType::Cold   ? EfiResetCold
                       : type == ResetType::Warm ? EfiResetWarm
                                                 : EfiResetShutdown;
    RT()->ResetSystem(t, EFI_SUCCESS, 0, nullptr);
  }

  EfiStatus GetVariable(const std::u16string& name, const Common::GUID& vendor,
                        uint32_t* attributes, std::vector<uint8_t>& data) override {
    std::u16string n = Terminated(name);
    EFI_GUID g = ToEfi(vendor);
    UINT32 attr = 0;
    UINTN size = 0;
    EFI_STATUS s = RT()->GetVariable(Wide(n), &g, &attr, &size, nullptr);
    if (s == EFI_BUFFER_TOO_SMALL) {
      data.resize(size);
      s = RT()->GetVariable(Wide(n), &g, &attr, &size, data.data());
      if (!EFI_ERROR(s)) data.resize(size);
    } else if (!EFI_ERROR(s)) {
      data.clear();  // an empty variable
    }
    if (!EFI_ERROR(s) && attributes) *attributes = attr;
    return s;
  }
  EfiStatus SetVariable(const std::u16string& name, const Common::GUID& vendor,
                        uint32_t attributes, const void* data, uint64_t size) override {
    std::u16string n = Terminated(name);
    EFI_GUID g = ToEfi(vendor);
    return RT()->SetVariable(Wide(n), &g, attributes, size, const_cast<void*>(data));
  }
  EfiStatus GetNextVariableName(std::u16string& name, Common::GUID& vendor) override {
    std::u16string buffer = Terminated(name);
    if (buffer.size() < 256) buffer.resize(256, 0);
    EFI_GUID g = ToEfi(vendor);
    UINTN size = buffer.size() * 2;
    EFI_STATUS s = RT()->GetNextVariableName(&size, Wide(buffer), &g);
    if (s == EFI_BUFFER_TOO_SMALL) {
      buffer.resize(size / 2 + 1, 0);
      size = buffer.size() * 2;
      s = RT()->GetNextVariableName(&size, Wide(buffer), &g);
    }
    if (!EFI_ERROR(s)) {
      name.assign(buffer.c_str());
      vendor = FromEfi(g);
    }
    return s;
  }

  EfiHandle LoaderDeviceHandle() override {
    EFI_LOADED_IMAGE* li = LoadedImage(Uefi::ImageHandle());
    return li ? li->DeviceHandle : nullptr;
  }
  std::vector<uint8_t> LoaderFilePath() override {
    EFI_LOADED_IMAGE* li = LoadedImage(Uefi::ImageHandle());
    std::vector<uint8_t> out;
    if (!li || !li->FilePath) return out;
    auto* p = reinterpret_cast<const uint8_t*>(li->FilePath);
    // Copy node by node up to the end node; a broken length stops the copy
    // and the logic reports the path as unusable.
    constexpr size_t kLimit = 0x10000;
    for (size_t i = 0; i + 4 <= kLimit;) {
      const uint16_t len = static_cast<uint16_t>(p[i + 2] | (p[i + 3] << 8));
      if (len < 4 || i + len > kLimit) break;
      out.insert(out.end(), p + i, p + i + len);
      if (p[i] == 0x7f && p[i + 1] == 0xff) break;
      i += len;
    }
    return out;
  }

  std::unique_ptr<FirmwarePxe> OpenPxe(EfiHandle device) override {
    auto* pxe = GetProtocol<EFI_PXE_BASE_CODE>(device, gEfiPxeBaseCodeProtocolGuid);
    if (!pxe || !pxe->Mode) return nullptr;
    return std::make_unique<UefiPxe>(pxe);
  }
  EfiStatus OpenVolume(EfiHandle device, std::unique_ptr<FirmwareFile>& root) override {
    auto* fs = GetProtocol<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL>(device,
                                                            gEfiSimpleFileSystemProtocolGuid);
    if (!fs) return EFI_UNSUPPORTED;
    EFI_FILE_HANDLE h = nullptr;
    EFI_STATUS s = fs->OpenVolume(fs, &h);
    if (!EFI_ERROR(s) && h) root = std::make_unique<UefiFile>(h);
    return s;
  }
  bool HasLoadFile(EfiHandle device) override {
    return GetProtocol<EFI_LOAD_FILE_PROTOCOL>(device, gEfiLoadFileProtocolGuid) != nullptr;
  }
  EfiStatus LoadFile(EfiHandle device, const std::vector<uint8_t>& devicePath, void* buffer,
                     uint64_t& size) override {
    auto* lf = GetProtocol<EFI_LOAD_FILE_PROTOCOL>(device, gEfiLoadFileProtocolGuid);
    if (!lf) return EFI_UNSUPPORTED;
    PoolDevicePath dp(devicePath);
    if (!dp.get()) return EFI_OUT_OF_RESOURCES;
    UINTN n = size;
    EFI_STATUS s = lf->LoadFile(lf, dp.get(), FALSE, &n, buffer);
    size = n;
    return s;
  }

  EfiStatus LoadImage(const std::vector<uint8_t>& devicePath, const void* buffer, uint64_t size,
                      EfiHandle& image) override {
    PoolDevicePath dp(devicePath);
    if (!dp.get()) return EFI_OUT_OF_RESOURCES;
    EFI_HANDLE h = nullptr;
    EFI_STATUS s = BS()->LoadImage(FALSE, Uefi::ImageHandle(), dp.get(),
                                   const_cast<void*>(buffer), size, &h);
    image = h;
    return s;
  }
  EfiStatus SetImageDevice(EfiHandle image, EfiHandle device) override {
    EFI_LOADED_IMAGE* li = LoadedImage(image);
    if (!li) return EFI_NOT_FOUND;
    li->DeviceHandle = device;
    return BS()->ReinstallProtocolInterface(image, &gEfiLoadedImageProtocolGuid, li, li);
  }
  EfiStatus StartImage(EfiHandle image) override {
    UINTN exitDataSize = 0;
    return BS()->StartImage(image, &exitDataSize, nullptr);
  }
  FirmwareBlocks* Blocks() override { return RealBlocks(); }

  FirmwareMemory* Memory() override { return RealMemory(); }
  FirmwareVideo* Video() override { return RealVideo(); }
  FirmwarePci* Pci() override { return RealPci(); }
};

}  // namespace

// The firmware object of the image; installed by the entry before main.
Firmware& RealFirmware() {
  static UefiFirmware firmware;
  return firmware;
}

}  // namespace EfiLoader
