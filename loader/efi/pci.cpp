#include "efi/pci.h"

#include <cstring>
#include <vector>

#include "common/error_codes.h"
#include "efi/boot_params.h"
#include "efi/platform_pci.h"

namespace EfiLoader {

using Common::Codes::EfiRuntimeError;

namespace {

constexpr uint8_t kEndTag = 0x79;
constexpr uint8_t kQwordAddressSpace = 0x8A;
constexpr uint8_t kBusNumberRange = 2;
constexpr uint32_t kLastBus = 255;

uint64_t PciAddress(uint32_t bus, uint32_t device, uint32_t function) {
  return static_cast<uint64_t>(bus) << 24 | device << 16 | function << 8;
}

void ScanBuses(FirmwarePciRootBridge& bridge, uint32_t first, uint32_t last, PciConfiguration& map) {
  // Bus numbers have eight bits; a range that claims more ends at 255.
  if (last > kLastBus) last = kLastBus;
  for (uint32_t bus = first; bus <= last; ++bus) {
    for (uint32_t device = 0; device < 32; ++device) {
      for (uint32_t function = 0; function < 8; ++function) {
        const uint64_t address = PciAddress(bus, device, function);
        uint16_t vendor = 0xFFFF;
        if (EfiFailed(bridge.PciRead(kPciWidthUint16, address, 1, &vendor)) || vendor == 0xFFFF) {
          if (function == 0) break;
          continue;
        }
        uint32_t words[16] = {};
        if (EfiFailed(bridge.PciRead(kPciWidthUint32, address, 16, words))) {
          if (function == 0) break;
          continue;
        }
        PciHeader header;
        std::memcpy(header.data(), words, header.size());
        map[address] = header;
        // Functions 1 to 7 exist only on a multi-function device.
        if (function == 0 && !(header[0x0E] & 0x80)) break;
      }
    }
  }
}

void ScanBridge(FirmwarePciRootBridge& bridge, PciConfiguration& map) {
  const uint8_t* list = nullptr;
  const EfiStatus status = bridge.Configuration(list);
  if (status == Status::Unsupported) {
    ScanBuses(bridge, 0, kLastBus, map);
    return;
  }
  if (EfiFailed(status) || !list) THROW_ERROR(EfiRuntimeError);
  const uint8_t* const start = list;
  for (const uint8_t* d = list;; d = NextDescriptor(d)) {
    if (static_cast<uint64_t>(d - start) >= kMaxDescriptorBytes) THROW_ERROR(EfiRuntimeError);
    if (d[0] == kEndTag) break;
    if (d[0] != kQwordAddressSpace || d[3] != kBusNumberRange) continue;
    const uint32_t lowest = BootParams::Get32(d + 14);
    const uint32_t highest = BootParams::Get32(d + 22);
    if (lowest <= highest) ScanBuses(bridge, lowest, highest, map);
  }
}

}  // namespace

const uint8_t* NextDescriptor(const uint8_t* descriptor) {
  if (!descriptor || descriptor[0] == kEndTag) THROW_ERROR(EfiRuntimeError);
  if (descriptor[0] & 0x80) return descriptor + 3 + BootParams::Get16(descriptor + 1);
  return descriptor + (descriptor[0] & 7) + 1;
}

void GetPciConfiguration(PciConfiguration& map) {
  map.clear();
  FirmwarePci* pci = Fw().Pci();
  if (!pci) THROW_ERROR(EfiRuntimeError);

  uint64_t bytes = 0;
  std::vector<EfiHandle> handles;
  EfiStatus status = pci->LocateRootBridges(bytes, nullptr);
  if (status == Status::BufferTooSmall) {
    if (bytes == 0) THROW_ERROR(EfiRuntimeError);
    handles.resize((bytes + sizeof(EfiHandle) - 1) / sizeof(EfiHandle));
    uint64_t capacity = handles.size() * sizeof(EfiHandle);
    status = pci->LocateRootBridges(capacity, handles.data());
    if (EfiFailed(status)) THROW_ERROR(EfiRuntimeError);
    if (capacity < handles.size() * sizeof(EfiHandle)) handles.resize(capacity / sizeof(EfiHandle));
  } else if (status != Status::Success) {
    THROW_ERROR(EfiRuntimeError);
  }

  for (EfiHandle handle : handles) {
    FirmwarePciRootBridge* bridge = nullptr;
    if (EfiFailed(pci->RootBridge(handle, bridge)) || !bridge) THROW_ERROR(EfiRuntimeError);
    ScanBridge(*bridge, map);
  }
}

}  // namespace EfiLoader
