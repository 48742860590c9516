#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include <vesk/testkit/Await.h>

namespace vesk {
class VeskQueue;
}

namespace vesk::testkit {

/**
 * The library's clock in the test's hands: it stands still until it is moved, and then whatever
 * fell due has been done when the call returns. The machine's clock is back when the object ends;
 * drop what the queue still holds before that (Vesk::onChannelAvailable(false)), for its times are
 * this clock's.
 *
 * Ownership: shares the queue.
 * Threads:   now() and jump() from any thread and from inside callbacks; advance() and settle()
 *            from any thread but the looper's.
 * Times:     milliseconds of uptime.
 * Failure:   the constructor throws std::logic_error while another ShiftedClock lives; advance()
 *            and settle() throw std::runtime_error where the looper is not idle by the deadline.
 */
class ShiftedClock {
public:
    static constexpr uint64_t START = 1000000;

    /**
     * @param queue    whose looper is waited for; null stands for Vesk's.
     * @param start    what the clock shows until it is moved.
     * @param deadline how long the looper is waited for, in real time.
     */
    explicit ShiftedClock(std::shared_ptr<VeskQueue> queue = nullptr, uint64_t start = START,
                          std::chrono::milliseconds deadline = DEADLINE);
    ~ShiftedClock();
    ShiftedClock(ShiftedClock const&) = delete;
    ShiftedClock& operator=(ShiftedClock const&) = delete;

    uint64_t now() const;

    /** Moves the time on and returns when everything that is due by then has been done. */
    void advance(uint64_t millis);

    /** Makes the looper look at the clock, and waits until it has nothing left to do. */
    void settle();

    /**
     * Moves the time alone and waits for nothing. Backwards is for what a thread sees that read the
     * clock just before another one did.
     */
    void jump(int64_t millis);

private:
    std::shared_ptr<VeskQueue> mQueue;
    std::chrono::milliseconds mDeadline;
};

}  // namespace vesk::testkit
