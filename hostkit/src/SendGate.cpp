#include <vesk/hostkit/SendGate.h>

#include <algorithm>

namespace vesk::hostkit {

SendGate::SendGate(VeskQueue const& queue, Outbox const& outbox, Limits limits)
    : mQueue(queue), mOutbox(outbox), mLimits(limits) {}

size_t SendGate::room() const {
    return look().room;
}

SendGate::Obstacle SendGate::obstacle() const {
    return look().obstacle;
}

SendGate::Look SendGate::look() const {
    if (!mOutbox.isOpen()) return {0, Obstacle::CHANNEL_DOWN};
    // In this order: a frame goes from pending to awaiting and to the backlog, and is counted twice
    // for a moment, so no look misses one.
    size_t const pending = static_cast<size_t>(mQueue.size());
    size_t const inFlight = pending + mQueue.awaitingAck();
    bool const paused = isPaused();  // remembers the watermarks also behind another obstacle
    if (pending >= mLimits.maxPending) return {0, Obstacle::PENDING};
    if (inFlight >= mLimits.maxInFlight) return {0, Obstacle::IN_FLIGHT};
    if (paused) return {0, Obstacle::HIGH_WATERMARK};
    return {std::min(mLimits.maxPending - pending, mLimits.maxInFlight - inFlight), Obstacle::NONE};
}

bool SendGate::isPaused() const {
    size_t const backlog = mOutbox.backlog();
    if (backlog >= mLimits.highWatermark) {
        mPaused = true;
    } else if (backlog <= mLimits.lowWatermark) {
        mPaused = false;
    }
    return mPaused;
}

char const* SendGate::describe(Obstacle obstacle) {
    switch (obstacle) {
        case Obstacle::CHANNEL_DOWN:
            return "the channel is down";
        case Obstacle::PENDING:
            return "as many frames as may be are pending";
        case Obstacle::IN_FLIGHT:
            return "as many frames as may be await the peer's acknowledgement";
        case Obstacle::HIGH_WATERMARK:
            return "the channel does not take what is written: the backlog is at its high "
                   "watermark";
        case Obstacle::NONE:
            break;
    }
    return "";
}

}  // namespace vesk::hostkit
