#pragma once

#include <atomic>
#include <cstdint>

#include <vesk/VeskExport.h>

namespace vesk {

/**
 * How the link behaves: packets sent and received, the last delay, consecutive slow deliveries.
 * Nothing acts on these numbers; they are there to be read.
 *
 * Threads: every operation may be called from any thread. The fields are independent: a reader may
 *          see one updated before another.
 */
class VESK_EXPORT VeskFeedback {
public:
    /** Adds n to the packets handed to the channel (modulo 2^32). */
    void sendPackets(int n);

    /** Adds n to the data frames accepted from the channel (modulo 2^32). */
    void receivePackets(int n);

    /**
     * Records one delay in ms: up to 1500 resets the slow count, more raises it by one. Two slow
     * delays recorded at the same moment may count once.
     */
    void updateDelay(unsigned int delay);

    /** Resets every counter to 0. */
    void cleanup();

    /** Packets handed to the channel since the last cleanup, acknowledgement frames included. */
    uint32_t sentPackets() const { return mSentPackets; }
    /** Data frames accepted from the channel since the last cleanup. */
    uint32_t receivedPackets() const { return mReceivedPackets; }
    /** The last recorded delay in ms; 60000 stands for a packet that was never acknowledged. */
    uint32_t delay() const { return __atomic_load_n(&mDelay, __ATOMIC_RELAXED); }
    /** Consecutive delays above 1500 ms. */
    uint32_t slowCount() const { return mSlowCount; }

private:
    std::atomic<uint32_t> mSentPackets{0};
    std::atomic<uint32_t> mReceivedPackets{0};
    uint32_t mDelay = 0;  // a plain word: the last writer wins. Accessed through __atomic builtins.
    std::atomic<uint32_t> mSlowCount{0};
};

}  // namespace vesk
