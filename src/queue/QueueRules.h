#pragma once

#include <cstddef>
#include <cstdint>

#include <vesk/VeskProtocol.h>

namespace vesk {

constexpr char const* QUEUE_TAG = "VeskQueue";

constexpr size_t SPARE_PACKETS = 64;    // packets that are kept to be used again
constexpr size_t USUAL_OWED_ACKS = 64;  // that there is always memory for

constexpr unsigned long long IDLE_WAIT_MS = 2147483647;

static_assert(HOLD_BACK_MS == ACK_TIMEOUT_MS, "the queue has one time for both");
static_assert(sizeof(unsigned long long) == sizeof(uint64_t), "waits are differences of times");
static_assert(IDLE_WAIT_MS / 1000 < INT32_MAX / 2, "the end of a wait must fit a 32-bit time_t");

/**
 * Time from `since` to `now`. What happened after the clock was read happened just now: subtracting
 * would make it look infinitely old.
 */
inline uint64_t elapsed(uint64_t now, uint64_t since) {
    return now > since ? now - since : 0;
}

}  // namespace vesk
