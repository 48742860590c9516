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
 * Waits until a condition holds that nothing announces, by asking for it again and again: at once
 * at first, then every 100 microseconds.
 *
 * @param condition called on this thread: at least once, and once more after the deadline, so that
 *                  a machine that stood still fails nothing.
 * @return whether it came to hold.
 */
inline bool eventually(std::function<bool()> const& condition,
                       std::chrono::milliseconds deadline = DEADLINE) {
    auto const end = std::chrono::steady_clock::now() + deadline;
    for (int tries = 0;; ++tries) {
        bool const late = std::chrono::steady_clock::now() >= end;
        if (condition()) return true;
        if (late) return false;
        if (tries < 1000) {
            std::this_thread::yield();  // it mostly takes the looper a few microseconds
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
}

}  // namespace vesk::testkit
