// The wall clock of code that stamps what it writes (gzip headers, RAM disk
// nodes).  The core has no clock of its own: the host tool and the firmware
// each install theirs.  Without one the time reads 0, which both formats
// take as "no time stamp".
#pragma once

#include <cstdint>

namespace Common {

using ClockSource = uint32_t (*)();

// Seconds since 1970 from the installed source, or 0 without one.
uint32_t CurrentTimeSeconds();
// Installs `source` (null removes it); gives back the previous one.
ClockSource SetClockSource(ClockSource source);

}  // namespace Common
