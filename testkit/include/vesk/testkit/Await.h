#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace vesk::testkit {

/**
 * How long the test kit waits, in real time, before it calls a condition failed. No sound test ever
 * uses it up: it is generous so that a loaded machine fails nothing.
 */
constexpr std::chrono::milliseconds DEADLINE{20000};

/**
 * Waits until a condition holds that nothing announces, by asking for it every 100 microseconds.
 *
 * @param condition called on this thread, at least once.
 * @return whether it came to hold before the deadline.
 */
inline bool eventually(std::function<bool()> const& condition,
                       std::chrono::milliseconds deadline = DEADLINE) {
    auto const end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

}  // namespace vesk::testkit
