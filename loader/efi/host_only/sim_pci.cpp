#include "efi/host_only/sim_pci.h"

#include <cstring>

#include "efi/pci.h"

namespace EfiLoader::Sim {

void SimRootBridge::AddFunction(uint32_t bus, uint32_t device, uint32_t function, uint16_t vendor,
                                uint8_t baseClass, bool multiFunction,
                                const std::array<uint32_t, 6>& bars) {
  std::array<uint8_t, 64> header{};
  header[0] = static_cast<uint8_t>(vendor);
  header[1] = static_cast<uint8_t>(vendor >> 8);
  header[0x0B] = baseClass;
  header[0x0E] = multiFunction ? 0x80 : 0x00;
  std::memcpy(header.data() + 0x10, bars.data(), 24);
  functions[static_cast<uint64_t>(bus) << 24 | device << 16 | function << 8] = header;
}

std::vector<uint8_t> SimRootBridge::BusRange(uint32_t lowest, uint32_t highest) {
  std::vector<uint8_t> d(46, 0);
  d[0] = 0x8A;
  d[1] = 43;  // length of the rest
  d[3] = 2;   // bus numbers
  std::memcpy(d.data() + 14, &lowest, 4);
  std::memcpy(d.data() + 22, &highest, 4);
  return d;
}

EfiStatus SimRootBridge::Configuration(const uint8_t*& list) {
  if (configurationStatus != Status::Success) return configurationStatus;
  // Zeros behind the list: a walk that misses the end tag reads those (a
  // run of one-byte descriptors) until its own limit, never past the block.
  handedOut_ = descriptors;
  handedOut_.resize(kMaxDescriptorBytes + 64, 0);
  list = nullList ? nullptr : handedOut_.data();
  return Status::Success;
}

EfiStatus SimRootBridge::PciRead(uint32_t width, uint64_t address, uint64_t count, void* buffer) {
  ++reads;
  busesRead.insert(static_cast<uint32_t>(address >> 24));
  if (readFails.count(address)) return Status::DeviceError;
  auto it = functions.find(address);
  if (width == kPciWidthUint16 && count == 1) {
    const uint16_t vendor = it == functions.end() ? 0xFFFF : static_cast<uint16_t>(it->second[0] | it->second[1] << 8);
    std::memcpy(buffer, &vendor, 2);
    return Status::Success;
  }
  if (width == kPciWidthUint32 && count == 16) {
    if (it == functions.end())
      std::memset(buffer, 0xFF, 64);
    else
      std::memcpy(buffer, it->second.data(), 64);
    return Status::Success;
  }
  return Status::InvalidParameter;
}

SimRootBridge& SimPci::Add() {
  bridges.push_back(std::make_unique<SimRootBridge>());
  return *bridges.back();
}

EfiStatus SimPci::LocateRootBridges(uint64_t& bytes, EfiHandle* handles) {
  ++locateCalls;
  if (locateStatus != Status::Success) return locateStatus;
  if (bridges.empty()) {
    bytes = 0;
    return noBridgesIsSuccess ? Status::Success : Status::NotFound;
  }
  const uint64_t need = bridges.size() * sizeof(EfiHandle);
  if (!handles || bytes < need) {
    bytes = need;
    return Status::BufferTooSmall;
  }
  for (size_t i = 0; i < bridges.size(); ++i) handles[i] = bridges[i].get();
  bytes = need;
  return Status::Success;
}

EfiStatus SimPci::RootBridge(EfiHandle handle, FirmwarePciRootBridge*& bridge) {
  bridge = nullptr;
  if (handleProtocolFails) return Status::Unsupported;
  for (auto& b : bridges)
    if (b.get() == handle) {
      bridge = b.get();
      return Status::Success;
    }
  return Status::InvalidParameter;
}

}  // namespace EfiLoader::Sim
