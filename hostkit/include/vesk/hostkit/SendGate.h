#pragma once

#include <atomic>
#include <cstddef>

#include <vesk/VeskExport.h>
#include <vesk/VeskProtocol.h>
#include <vesk/VeskQueue.h>
#include <vesk/hostkit/Outbox.h>

namespace vesk::hostkit {

/**
 * Says whether the library can take one more frame for the peer without losing any, and how many.
 *
 * The library never blocks a sender: the frame that finds 1000 others pending is dropped. So a host
 * looks before it sends and, where the gate is closed, leaves the frame with its client until there
 * is room. Room comes when frames leave, when acknowledgements come in, and, without any event,
 * when those that never come have been awaited for 2000 ms.
 *
 * Threads: every operation may be called from any thread. The answer is exact as long as one thread
 *          does all the sending; the limits leave room for a hundred that look at the same moment.
 */
class VESK_EXPORT SendGate {
public:
    struct Limits {
        /** Pending frames: with payloads of 64 KiB each this is the greatest need of memory. */
        size_t maxPending = 256;

        /**
         * Frames that are pending or sent and not acknowledged. With 1000 of the latter the looper
         * stops sending, and the acknowledgements that it owes the peer wait behind the frames it
         * holds; two hosts in that state wait for each other until their frames expire. Some room
         * is left for the acknowledgement frames, which are pending too.
         */
        size_t maxInFlight = 900;

        /**
         * Bytes of backlog, handed to the channel and not written yet: sending pauses at the high
         * watermark and goes on at the low one, so that a slow channel does not wake every sender
         * for each frame that leaves.
         */
        size_t highWatermark = size_t{1024} * 1024;
        size_t lowWatermark = size_t{256} * 1024;

        /**
         * Bytes of backlog at which a host stops reading the channel, too: each frame that it reads
         * adds an acknowledgement to the backlog, whether the peer reads these or not. It lies far
         * above the high watermark, because two hosts that stop reading wait for each other: one
         * that sends frames only through a gate does not bring the other this far.
         */
        size_t readWatermark = size_t{4096} * 1024;

        /** Acknowledgements owed at which a host stops reading: the queue forgets 1000 of them. */
        size_t maxOwedAcks = 500;
    };

    /** What keeps the gate closed. */
    enum class Obstacle {
        NONE,
        CHANNEL_DOWN,   // what is sent while the outbox is closed goes nowhere
        PENDING,        // as many frames wait for the looper as may
        IN_FLIGHT,      // the peer has not acknowledged enough of what was sent
        HIGH_WATERMARK  // the channel does not take what is written
    };

    /** Both must outlive the gate. */
    SendGate(VeskQueue const& queue, Outbox const& outbox) : SendGate(queue, outbox, Limits{}) {}
    SendGate(VeskQueue const& queue, Outbox const& outbox, Limits limits);

    /** Whether one more frame may be sent now. */
    bool open() const { return obstacle() == Obstacle::NONE; }

    /** How many frames may be sent now; 0 where there is an obstacle. */
    size_t room() const;

    /** The first obstacle in the order of their enumeration. */
    Obstacle obstacle() const;

    /** Whether to go on reading the channel; see Limits::readWatermark and maxOwedAcks. */
    bool mayRead() const {
        return mOutbox.backlog() < mLimits.readWatermark && mQueue.owedAcks() < mLimits.maxOwedAcks;
    }

    /** An obstacle in a few words, such as "the channel is down"; empty for NONE. */
    static char const* describe(Obstacle obstacle);

private:
    struct Look {
        size_t room;
        Obstacle obstacle;
    };
    Look look() const;
    bool isPaused() const;

    VeskQueue const& mQueue;
    Outbox const& mOutbox;
    Limits const mLimits;
    mutable std::atomic<bool> mPaused{false};  // the high watermark was met, the low one not yet
};

}  // namespace vesk::hostkit
