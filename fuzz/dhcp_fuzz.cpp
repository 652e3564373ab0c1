// DHCP packets from the network: GetDhcpOption must answer every tag of
// any packet with a length of 0, or with data that lies wholly inside the
// packet (ASan watches the bytes right behind it).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "efi/file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> packet(data, data + size);
  const uint8_t* begin = packet.data();
  const uint8_t* end = begin + packet.size();
  // The tags the loader asks for, the overload tag, the list's own pad and
  // end bytes, and one the input chooses.
  const uint8_t tags[] = {67, 54, 52, 0, 255, 1, size > 0 ? data[size - 1] : uint8_t(12)};
  for (uint8_t tag : tags) {
    const uint8_t* result = nullptr;
    const uint32_t length = EfiLoader::GetDhcpOption(result, tag, packet);
    if (length == 0) continue;
    if (result == nullptr || result < begin || result > end || length > size_t(end - result)) std::abort();
    // Every byte of the answer is read, as the loader reads a name.
    volatile uint8_t sum = 0;
    for (uint32_t i = 0; i < length; ++i) sum = sum + result[i];
  }
  return 0;
}
