// The image entry after relocation: firmware checks, bringing up the C and
// C++ runtime, the shell's arguments, main(), and the way back.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform.h"
#include "runtime.h"

// The program; it gets (argc, argv) and its result is not used.
int main(int argc, char** argv);

extern "C" {
// Provided by the linker script.
extern const char __eh_frame_start[];
extern void (*__init_array_start[])();
extern void (*__init_array_end[])();
// libgcc's unwinder learns where the unwind tables are from this call; the
// image has no program headers it could search.
void __register_frame_info(const void* begin, void* object);
}

namespace {

constexpr uint32_t kMinimumRevision = 0x1000A;  // EFI 1.10

// The shell's parameter protocol (UEFI Shell 2.0) and the older EFI shell's
// interface: only the fields the entry reads.
constexpr EFI_GUID kShellParametersGuid = {
    0x752F3136, 0x4E16, 0x4FDC, {0xA2, 0x2A, 0xE5, 0xF4, 0x68, 0x12, 0xF4, 0xCA}};
constexpr EFI_GUID kShellInterfaceGuid = {
    0x47C7B223, 0xC42A, 0x11D2, {0x8E, 0x57, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};

struct ShellParameters {
  CHAR16** argv;
  UINTN argc;
};

struct ShellInterface {
  EFI_HANDLE imageHandle;
  void* info;
  CHAR16** argv;
  UINTN argc;
};

// libgcc's `struct object` is private to it; six words today, room to spare.
alignas(16) unsigned char g_frameObject[128];

bool g_started = false;

void RunConstructors() {
  for (auto* entry = __init_array_start; entry != __init_array_end; ++entry) {
    auto value = reinterpret_cast<uintptr_t>(*entry);
    // .ctors lists may carry 0 and -1 as markers.
    if (value != 0 && value != UINTPTR_MAX) (*entry)();
  }
}

// The arguments the shell (if any) started us with, as wide strings owned by
// the shell.  Returns 0 and null when there are none.
UINTN ShellArguments(EFI_HANDLE image, CHAR16*** wideArgv) {
  EFI_BOOT_SERVICES* bs = Uefi::BootServices();
  void* protocol = nullptr;
  EFI_GUID guid = kShellParametersGuid;
  if (!EFI_ERROR(bs->OpenProtocol(image, &guid, &protocol, image, nullptr,
                                  EFI_OPEN_PROTOCOL_GET_PROTOCOL)) &&
      protocol) {
    auto* p = static_cast<ShellParameters*>(protocol);
    *wideArgv = p->argv;
    return p->argv ? p->argc : 0;
  }
  guid = kShellInterfaceGuid;
  if (!EFI_ERROR(bs->OpenProtocol(image, &guid, &protocol, image, nullptr,
                                  EFI_OPEN_PROTOCOL_GET_PROTOCOL)) &&
      protocol) {
    auto* p = static_cast<ShellInterface*>(protocol);
    *wideArgv = p->argv;
    return p->argv ? p->argc : 0;
  }
  *wideArgv = nullptr;
  return 0;
}

// Narrow copies of the arguments: one block for the texts, one for the
// pointer array (null-terminated).  Characters beyond Latin-1 become '?'.
struct NarrowArguments {
  int argc = 0;
  char** argv = nullptr;
  char* text = nullptr;
  bool ok = true;

  ~NarrowArguments() {
    std::free(argv);
    std::free(text);
  }

  void Build(CHAR16** wide, UINTN count) {
    if (count == 0) return;
    size_t total = 0;
    for (UINTN i = 0; i < count; ++i) {
      for (const CHAR16* c = wide[i]; c && *c; ++c) ++total;
      ++total;
    }
    text = static_cast<char*>(std::malloc(total));
    argv = static_cast<char**>(std::calloc(count + 1, sizeof(char*)));
    if (!text || !argv) {
      ok = false;
      return;
    }
    char* out = text;
    for (UINTN i = 0; i < count; ++i) {
      argv[i] = out;
      for (const CHAR16* c = wide[i]; c && *c; ++c) *out++ = *c < 0x100 ? static_cast<char>(*c) : '?';
      *out++ = '\0';
    }
    argc = static_cast<int>(count);
  }
};

EFI_STATUS RunProgram(EFI_HANDLE image) {
  {
    CHAR16** wide = nullptr;
    UINTN count = ShellArguments(image, &wide);
    NarrowArguments args;
    args.Build(wide, count);
    if (args.ok) main(args.argc, args.argv);
  }
  Uefi::Runtime::RunExitHandlers();
  // Whatever happened, a run that comes back tells the firmware to go on
  // with its next boot option.
  Uefi::Runtime::ExitImage(EFI_LOAD_ERROR);
}

}  // namespace

extern "C" EFI_STATUS EFIAPI EfiImageEntry(EFI_HANDLE image, EFI_SYSTEM_TABLE* systemTable) {
  if (systemTable->Hdr.Revision < kMinimumRevision) {
    systemTable->ConOut->OutputString(
        systemTable->ConOut,
        const_cast<CHAR16*>(reinterpret_cast<const CHAR16*>(u"Please start this image in EFI higher version \r\n")));
    systemTable->BootServices->Exit(image, EFI_UNSUPPORTED, 0, nullptr);
    return EFI_UNSUPPORTED;
  }
  if (!g_started) {
    g_started = true;
    // The firmware's 5-minute watchdog would reset the machine in a menu
    // left waiting or during a long file read.
    systemTable->BootServices->SetWatchdogTimer(0, 0, 0, nullptr);
    InitializeLib(image, systemTable);
    Uefi::Runtime::SetFirmware(image, systemTable);
    __register_frame_info(__eh_frame_start, g_frameObject);
    Uefi::Runtime::StartStdio();
    // Constructors may allocate and throw, so they come last.
    RunConstructors();
  }
  return RunProgram(image);
}
