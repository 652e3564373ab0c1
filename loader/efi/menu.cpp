#include <set>

#include "common/error_codes.h"
#include "efi/config.h"
#include "efi/console.h"
#include "efi/menu.h"
#include "efi/platform.h"

namespace EfiLoader {

using Common::Error;
using Common::Codes::Canceled;
using Common::Codes::EfiRuntimeError;

namespace {
bool g_conInReset = false;  // typed-ahead keys are dropped once per run

// Relative timers count 100 ns units in 32 bits: this is the longest wait.
constexpr int32_t kMaxTimeoutMs = 214748;
}  // namespace

void ResetMenuState() { g_conInReset = false; }

uint32_t WaitForAnyOfKeys(const std::set<uint32_t>& keys, int32_t timeout) {
  Firmware& fw = Fw();
  if (!fw.HasConsoleInput()) THROW_ERROR(EfiRuntimeError);
  if (!g_conInReset) {
    fw.ConInReset(true);
    g_conInReset = true;
  }
  EfiEvent timer = nullptr;
  if (EfiFailed(fw.CreateTimerEvent(timer))) return 0;
  struct Closer {
    Firmware& fw;
    EfiEvent event;
    ~Closer() { fw.CloseEvent(event); }
  } closer{fw, timer};

  if (timeout >= 0) {
    const uint64_t ms = timeout > kMaxTimeoutMs ? kMaxTimeoutMs : static_cast<uint64_t>(timeout);
    if (EfiFailed(fw.SetTimerRelative(timer, ms * 10000))) return 0;
  }
  const EfiEvent events[2] = {fw.WaitForKeyEvent(), timer};
  const uint64_t count = timeout < 0 ? 1 : 2;
  for (;;) {
    uint64_t index = 0;
    if (EfiFailed(fw.WaitForEvent(events, count, index)) || index != 0) return 0;
    InputKey key{};
    if (EfiFailed(fw.ReadKeyStroke(key))) THROW_ERROR(EfiRuntimeError);
    const uint32_t code = (static_cast<uint32_t>(key.UnicodeChar) << 16) | key.ScanCode;
    if (!keys.count(code)) continue;
    std::u16string echo = u"\n>";
    if (key.UnicodeChar) echo.push_back(key.UnicodeChar);
    echo += u"\nPlease wait...\n";
    Print(echo);
    return code;
  }
}

Error Menu::Execute() {
  if (!topic.empty()) Print(topic + u"\n");
  for (const auto& [code, entry] : entries)
    if (!entry->text.empty()) Print(entry->text + u"\n");

  // Seconds to milliseconds; a negative result waits without limit.
  const int64_t ms = static_cast<int64_t>(delay) * 1000;
  const int32_t timeout = ms < 0 ? -1 : ms > INT32_MAX ? INT32_MAX : static_cast<int32_t>(ms);
  const uint32_t code = WaitForAnyOfKeys(keys, timeout);
  if (code == 0) {
    // A returned failure of the default action is not reported; a thrown
    // one goes up past the menu.
    if (defaultEntry) defaultEntry->action->Execute();
    return {};
  }
  const std::shared_ptr<Entry>& entry = entries.at(code);
  if (!entry->confirmation.empty()) {
    Print(u"\n" + entry->confirmation + u" (Y/N)\n");
    static const std::set<uint32_t> kAnswers = {
        0x00790000, 0x00590000, 0x00790018, 0x00590018, 0x006E0000, 0x004E0000,
        0x006E0019, 0x004E0019, 0x00790015, 0x00590015, 0x006E0031, 0x004E0031};
    const uint32_t answer = WaitForAnyOfKeys(kAnswers, -1);
    const char16_t c = static_cast<char16_t>(answer >> 16);
    if (c == u'N' || c == u'n') return Common::MakeError(ERROR_HERE, Canceled);
  }
  return entry->action->Execute();
}

}  // namespace EfiLoader
