#include "efi/platform.h"

namespace EfiLoader {

namespace {
Firmware* g_firmware = nullptr;
}

Firmware& Fw() { return *g_firmware; }
void SetFirmware(Firmware* firmware) { g_firmware = firmware; }

}  // namespace EfiLoader
