// Internal interface between the start-up code and the C runtime of the
// image.  Not for use outside loader/efi/uefi.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "platform.h"

namespace Uefi::Runtime {

// Called once by the start-up code, in this order, before any constructor.
void SetFirmware(EFI_HANDLE image, EFI_SYSTEM_TABLE* systemTable);
void StartStdio();

// Runs the handlers registered with atexit/__cxa_atexit, newest first.
void RunExitHandlers();

// Leaves the image: back to the firmware with `status` while boot services
// are up, otherwise the processor stops.
[[noreturn]] void ExitImage(EFI_STATUS status);

// Writes narrow text (UTF-8) to a console, turning "\n" into "\r\n".
void ConsoleWrite(SIMPLE_TEXT_OUTPUT_INTERFACE* console, const char* text, size_t length);

// The formatting engine behind the printf family.  `sink` receives the
// output in pieces; the result is the length of the whole output.
using FormatSink = void (*)(void* context, const char* piece, size_t length);
int Format(FormatSink sink, void* context, const char* format, va_list args);

}  // namespace Uefi::Runtime
