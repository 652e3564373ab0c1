// A snapshot of the configuration headers of every PCI function that the
// firmware's root bridges reach.
#pragma once

#include <array>
#include <cstdint>
#include <map>

namespace EfiLoader {

// Key: bus << 24 | device << 16 | function << 8; value: the first 64 bytes
// of the function's configuration space.
using PciHeader = std::array<uint8_t, 64>;
using PciConfiguration = std::map<uint64_t, PciHeader>;

// Clears `map` and fills it.  Throws "An EFI runtime error." on any
// failure of the firmware.
void GetPciConfiguration(PciConfiguration& map);

// The ACPI resource descriptor behind `descriptor`.  Throws on the end tag
// or on null.
const uint8_t* NextDescriptor(const uint8_t* descriptor);

// The longest descriptor list walked: a list without its end tag stops
// here as a runtime error instead of running through memory.
inline constexpr uint64_t kMaxDescriptorBytes = 0x10000;

}  // namespace EfiLoader
