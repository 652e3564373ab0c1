#include "uefi/errors.h"

#include "common/format_message.h"

namespace Uefi {

Common::Error MakeUefiError(const Common::ErrorLocation& where, uint32_t code, const char16_t* name) {
  switch (code) {
    case Codes::VariableStateInvalid:
      return Common::Error(where, code, u"State of UEFI variable is invalid.");
    case Codes::IncorrectBootPath:
      return Common::Error(where, code, u"Incorrect boot path.");
    case Codes::NotImplemented:
      return Common::Error(where, code, u"Not implemented.");
    case Codes::IncorrectBootSignature:
      return Common::Error(where, code, u"Incorrect boot signature.");
    case Codes::BootEntryNotFound: {
      Fdisk::FormatMessage message(u"Boot entry '{0}' cannot be found.");
      message.Add(name ? name : u"");
      return Common::Error(where, code, message.Text());
    }
    default:
      return Common::Error(where, code);
  }
}

}  // namespace Uefi
