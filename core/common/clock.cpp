#include "common/clock.h"

namespace Common {

namespace {
ClockSource g_source = nullptr;
}  // namespace

uint32_t CurrentTimeSeconds() { return g_source ? g_source() : 0; }

ClockSource SetClockSource(ClockSource source) {
  ClockSource previous = g_source;
  g_source = source;
  return previous;
}

}  // namespace Common
