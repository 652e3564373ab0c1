// The program the start-up code runs: the loader on the real firmware.
#include "efi/main.h"
#include "efi/platform.h"

namespace EfiLoader {
Firmware& RealFirmware();
}

int main(int, char**) {
  EfiLoader::SetFirmware(&EfiLoader::RealFirmware());
  return EfiLoader::LoaderMain();
}
