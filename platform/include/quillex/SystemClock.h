#pragma once

#include <cstdint>

namespace quillex {

/** Host stand-in for the device's uptime clock. */
class SystemClock {
public:
    using Source = uint64_t (*)();

    /** Milliseconds of uptime; monotonic. Any thread. */
    static uint64_t uptimeMillis();

    /** Host only: the clock reads `source` from now on; null brings back the machine's uptime. */
    static void setSource(Source source);

    /** Host only: the machine's uptime in ms, whatever source is set. */
    static uint64_t machineMillis();
};

}  // namespace quillex
