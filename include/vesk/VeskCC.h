#pragma once

#include <atomic>
#include <cstdint>

#include <vesk/VeskExport.h>

namespace vesk {

/**
 * Counts consecutive slow deliveries. The library does not feed it; it is there for hosts that
 * measure delays of their own.
 *
 * Threads: every operation may be called from any thread.
 */
class VESK_EXPORT VeskCC {
public:
    /**
     * Records one delay in ms: up to 1500 resets the count, more raises it by one. Two slow delays
     * recorded at the same moment may count once.
     */
    void updateDelay(unsigned int delay);

    /** Resets the count to 0. */
    void cleanup();

    /** Consecutive delays above 1500 ms. */
    uint32_t slowCount() const { return mSlowCount; }

private:
    std::atomic<uint32_t> mSlowCount{0};
};

}  // namespace vesk
