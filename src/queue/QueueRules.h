#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vesk {

constexpr char const* QUEUE_TAG = "VeskQueue";

constexpr int IMMEDIATE_PRIORITY = 1;  // not held back

constexpr uint64_t ACK_BATCH_AGE_MS = 500;
constexpr size_t ACK_BATCH_COUNT = 5;
constexpr unsigned long long IDLE_WAIT_MS = 2147483647;
constexpr unsigned int TIMEOUT_DELAY_MS = 60000;

static_assert(sizeof(unsigned long long) == sizeof(uint64_t), "waits are differences of times");
static_assert(IDLE_WAIT_MS / 1000 < INT32_MAX / 2, "the end of a wait must fit a 32-bit time_t");

/**
 * Time from `since` to `now`. What happened after the clock was read happened just now: subtracting
 * would make it look infinitely old.
 */
inline uint64_t elapsed(uint64_t now, uint64_t since) {
    return now > since ? now - since : 0;
}

inline void lowerTo(unsigned long long& nextTime, uint64_t wait) {
    nextTime = std::min<unsigned long long>(nextTime, wait);
}

}  // namespace vesk
