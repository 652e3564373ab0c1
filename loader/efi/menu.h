// The key wait of the menu: the one place that reads the keyboard.
#pragma once

#include <cstdint>
#include <set>

namespace EfiLoader {

// Waits for one of `keys` (scan code low, character high) or `timeout`
// milliseconds (-1: no limit).  Returns the key, or 0 when the wait ended
// without one.
uint32_t WaitForAnyOfKeys(const std::set<uint32_t>& keys, int32_t timeout);

// Forgets that the console input was reset (host tests run many boots).
void ResetMenuState();

}  // namespace EfiLoader
