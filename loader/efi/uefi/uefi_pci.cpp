// The real firmware behind EfiLoader::FirmwarePci: the root bridges and
// their configuration reads.
#include <map>
#include <memory>

#include "efi/platform_pci.h"
#include "platform.h"

namespace EfiLoader {
namespace {

class UefiRootBridge final : public FirmwarePciRootBridge {
 public:
  explicit UefiRootBridge(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* bridge) : bridge_(bridge) {}
  EfiStatus Configuration(const uint8_t*& descriptors) override {
    void* resources = nullptr;
    EFI_STATUS s = bridge_->Configuration(bridge_, &resources);
    descriptors = static_cast<const uint8_t*>(resources);
    return s;
  }
  EfiStatus PciRead(uint32_t width, uint64_t address, uint64_t count, void* buffer) override {
    return bridge_->Pci.Read(bridge_, static_cast<EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH>(width),
                             address, count, buffer);
  }

 private:
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* bridge_;
};

class UefiPci final : public FirmwarePci {
 public:
  EfiStatus LocateRootBridges(uint64_t& bytes, EfiHandle* handles) override {
    UINTN size = bytes;
    EFI_STATUS s = Uefi::BootServices()->LocateHandle(
        ByProtocol, &gEfiPciRootBridgeIoProtocolGuid, nullptr, &size,
        reinterpret_cast<EFI_HANDLE*>(handles));
    bytes = size;
    return s;
  }
  EfiStatus RootBridge(EfiHandle handle, FirmwarePciRootBridge*& bridge) override {
    bridge = nullptr;
    void* iface = nullptr;
    EFI_STATUS s =
        Uefi::BootServices()->HandleProtocol(handle, &gEfiPciRootBridgeIoProtocolGuid, &iface);
    if (EFI_ERROR(s) || !iface) return s;
    auto* protocol = static_cast<EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*>(iface);
    std::unique_ptr<UefiRootBridge>& kept = bridges_[protocol];
    if (!kept) kept = std::make_unique<UefiRootBridge>(protocol);
    bridge = kept.get();
    return s;
  }

 private:
  std::map<EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*, std::unique_ptr<UefiRootBridge>> bridges_;
};

}  // namespace

FirmwarePci* RealPci() {
  static UefiPci pci;
  return &pci;
}

}  // namespace EfiLoader
