#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace peers {

/** What one run asks for. */
struct Options {
    size_t payload = 64;
    size_t window = 1;    // requests that are outstanding at any moment
    double seconds = 1;   // that are measured, behind a tenth as many of warming up
    size_t requests = 0;  // instead of the seconds, where not 0
    bool coalesces = false;
};

/**
 * The requests of one run, and what is measured of them. Each request has bytes of its own, belongs
 * to the conversation that its place in the sequence gives it, and every reply is compared with it
 * byte for byte.
 *
 * A client sends `window` requests of next() and then, for each reply that it hands to replied(),
 * another one while more() says so. Threads: one at a time.
 */
class Load {
public:
    static constexpr size_t CONVERSATIONS = 13;

    struct Request {
        size_t conversation;
        uint8_t const* data;  // until its reply has come
        size_t size;
    };

    /** @param onMeasuring runs where the measured part begins, and again where it has ended. */
    Load(Options const& options, std::function<void()> onMeasuring);

    Request next();
    /** A reply that is not its request's ends the process. @return whether to send another. */
    bool replied(size_t conversation, void const* data, size_t size);
    /** Whether every request has its reply. */
    bool done() const { return mStopping && mReplies == mRequests; }

    double requestsPerSecond() const;
    uint64_t measured() const { return mMeasured; }
    /** In microseconds; steps of less than a hundredth. */
    double percentile(double percent) const;
    double longest() const { return double(mLongest) / 1000; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t STEPS = 128;  // in which each doubling of a latency is counted

    struct Slot {
        std::vector<uint8_t> payload;
        Clock::time_point sent;
        bool outstanding = false;
    };

    static size_t stepOf(uint64_t nanos);
    void watchTime(Clock::time_point now);

    Options const mOptions;
    std::function<void()> const mOnMeasuring;
    std::vector<Slot> mSlots;
    std::vector<uint32_t> mFree;
    std::array<uint32_t, STEPS * 40> mLatencies{};
    uint64_t mRequests = 0;
    uint64_t mReplies = 0;
    uint64_t mMeasured = 0;
    uint64_t mLongest = 0;  // ns
    bool mMeasuring = false;
    bool mStopping = false;
    Clock::time_point mStart;
    Clock::time_point mEnd;
};

}  // namespace peers
