#pragma once

#include <chrono>
#include <cstdint>

namespace vesk::hostkit {

/** The time for a capture, in microseconds since 1970. */
inline uint64_t microsSince1970() {
    using std::chrono::duration_cast;
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace vesk::hostkit
