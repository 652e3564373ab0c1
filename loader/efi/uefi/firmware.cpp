// The handles the image was started with, and the ways out of the image.
#include <cstdlib>

#include "platform.h"
#include "runtime.h"

namespace {
EFI_HANDLE g_image = nullptr;
EFI_SYSTEM_TABLE* g_systemTable = nullptr;
bool g_bootServicesExited = false;
}  // namespace

namespace Uefi {

EFI_HANDLE ImageHandle() { return g_image; }
EFI_SYSTEM_TABLE* SystemTable() { return g_systemTable; }
EFI_BOOT_SERVICES* BootServices() { return g_systemTable ? g_systemTable->BootServices : nullptr; }
EFI_RUNTIME_SERVICES* RuntimeServices() { return g_systemTable ? g_systemTable->RuntimeServices : nullptr; }

void NoteBootServicesExited() { g_bootServicesExited = true; }
bool BootServicesAvailable() { return g_systemTable != nullptr && !g_bootServicesExited; }

namespace Runtime {

void SetFirmware(EFI_HANDLE image, EFI_SYSTEM_TABLE* systemTable) {
  g_image = image;
  g_systemTable = systemTable;
}

void ExitImage(EFI_STATUS status) {
  if (BootServicesAvailable()) g_systemTable->BootServices->Exit(g_image, status, 0, nullptr);
  // Without boot services there is nobody to return to.
  for (;;) __asm__ volatile("cli; hlt");
}

}  // namespace Runtime
}  // namespace Uefi

extern "C" {

void abort() {
  static const char kMessage[] = "\nThe loader stopped on an internal error (abort).\n";
  if (Uefi::BootServicesAvailable())
    Uefi::Runtime::ConsoleWrite(Uefi::SystemTable()->ConOut, kMessage, sizeof kMessage - 1);
  Uefi::Runtime::ExitImage(EFI_ABORTED);
}

void exit(int) {
  Uefi::Runtime::RunExitHandlers();
  Uefi::Runtime::ExitImage(EFI_LOAD_ERROR);
}

void _Exit(int) { Uefi::Runtime::ExitImage(EFI_LOAD_ERROR); }

}  // extern "C"
