// The firmware as the rest of the image sees it: the handles the image was
// started with and the state of boot services.
//
// Only code built for the firmware includes this header; the gnu-efi headers
// it pulls in are C headers without `extern "C"` guards of their own.
#pragma once

extern "C" {
#include <efi.h>
#include <efilib.h>
}

namespace Uefi {

// What the firmware passed to the image entry.  Valid from the start of
// main() until the end of the run.
EFI_HANDLE ImageHandle();
EFI_SYSTEM_TABLE* SystemTable();
EFI_BOOT_SERVICES* BootServices();
EFI_RUNTIME_SERVICES* RuntimeServices();

// Call right after a successful ExitBootServices.  From then on the heap
// refuses to allocate (and frees nothing), console output is dropped, and
// abort() halts the processor instead of returning to the firmware.
void NoteBootServicesExited();
bool BootServicesAvailable();

}  // namespace Uefi
