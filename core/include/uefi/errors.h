// Error codes of the boot-variable layer, with their texts.
#pragma once

#include <cstdint>

#include "common/error.h"

namespace Uefi {

namespace Codes {
inline constexpr uint32_t VariableStateInvalid = 0x12F0003;
inline constexpr uint32_t IncorrectBootPath = 0x12F0005;
inline constexpr uint32_t NotImplemented = 0x12F0006;
inline constexpr uint32_t IncorrectBootSignature = 0x12F0007;
inline constexpr uint32_t BootEntryNotFound = 0x12F0008;
// The codes below carry no text of their own: what went wrong is told by
// their cause.
inline constexpr uint32_t RecordInvalid = 0x12F000D;
inline constexpr uint32_t OutOfResources = 0x12F000E;
inline constexpr uint32_t CloneFailed = 0x12F000F;
inline constexpr uint32_t CreateNewFailed = 0x12F0010;
}  // namespace Codes

// The error of `code` with its standard text (none for the cause-only
// codes).  0x12F0008 gets its "{0}" filled with `name`.
Common::Error MakeUefiError(const Common::ErrorLocation& where, uint32_t code,
                        const char16_t* name = u"");

// The same with `cause` attached.
inline Common::Error MakeUefiError(const Common::ErrorLocation& where, uint32_t code,
                               const Common::Error& cause) {
  return MakeUefiError(where, code).WithCause(cause);
}

}  // namespace Uefi
