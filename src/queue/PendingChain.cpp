// Putting packets into the pending chain, taking them out and replacing their data.

#include <vesk/VeskFrame.h>

#include <quillex/SystemClock.h>

#include <utility>

#include "core/DebugLog.h"
#include "queue/QueueRules.h"
#include "queue/QueueState.h"

namespace vesk {

namespace {

bool sameMessage(VeskFrame const& a, VeskFrame const& b) {
    return a.topicId == b.topicId && a.businessId == b.businessId && a.msgId == b.msgId &&
           a.msgType == b.msgType && a.reply == b.reply;
}

}  // namespace

void VeskQueue::State::enqueue(int priority, bool needRetransmission,
                               std::shared_ptr<VeskFrame> frame) {
    debugLog(QUEUE_TAG, "enqueue:", frame->msgId, "; priority:", priority);
    push(new QueuedPacket(priority, needRetransmission, std::move(frame)));
}

void VeskQueue::State::push(Packet const& packet) {
    Packets dropped;  // released after the lock
    bool sleeps = false;
    uint64_t pending = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        pending = static_cast<uint64_t>(mPending.load());
        if (pending >= mMaxQueueSize) {
            ++mRefused;
        } else {
            if (!enqueuePacket(packet)) {
                debugLog(QUEUE_TAG, "enqueue fail.");
                ++mRefused;
            }
            sleeps = wakeLooper();
            dropped.swap(mDropped);
        }
    }
    if (sleeps) mCond.notify_one();
    // Outside the lock: under overload every producer comes through here.
    if (pending >= mMaxQueueSize) debugLog(QUEUE_TAG, "oversize.", pending);
}

bool VeskQueue::State::enqueuePacket(Packet const& packet) {
    debugLog(QUEUE_TAG, "enqueuing packet:", packet->mFrame->msgId);
    if (!mRunning) {
        debugLog(QUEUE_TAG, "sending a packet to died queue");
        return false;
    }
    void const* holder = nullptr;
    if (!packet->mHolder.compare_exchange_strong(holder, this)) {
        return false;  // pending already, here or in another queue
    }
    insertByPriority(packet);
    ++mPending;
    packet->updateEnqueueTime(quillex::SystemClock::uptimeMillis());
    return true;
}

void VeskQueue::State::insertByPriority(Packet const& packet) {
    if (mHead == nullptr) {
        if (mTail != nullptr) mDropped.push_back(std::move(mTail));  // the stale one
        mHead = packet;
        mTail = packet;
        return;
    }
    // From both ends at once: what is urgent finds its place near the head, whatever is held back
    // behind it, and all else near the tail.
    QueuedPacket* after = mHead.get();
    QueuedPacket* before = mTail.get();
    while (after->mPriority <= packet->mPriority && packet->mPriority < before->mPriority) {
        after = after->mNext.get();
        before = before->mPrev.get();
    }
    if (after->mPriority > packet->mPriority) {
        before = after->mPrev.get();
    } else {
        after = before->mNext.get();
    }
    // The neighbours' references to each other become the packet's own: none is counted anew.
    Packet& fromBefore = before == nullptr ? mHead : before->mNext;
    Packet& fromAfter = after == nullptr ? mTail : after->mPrev;
    packet->mNext = std::move(fromBefore);
    packet->mPrev = std::move(fromAfter);
    fromBefore = packet;
    fromAfter = packet;
}

VeskQueue::State::Packet VeskQueue::State::unlink(QueuedPacket* packet) {
    QueuedPacket* const prev = packet->mPrev.get();
    QueuedPacket* const next = packet->mNext.get();
    Packet& fromBefore = prev == nullptr ? mHead : prev->mNext;
    Packet& fromAfter = next == nullptr ? mTail : next->mPrev;
    Packet self = std::move(fromBefore);
    fromBefore = std::move(packet->mNext);
    fromAfter = std::move(packet->mPrev);
    if (mSending == packet) mSending = nullptr;
    --mPending;
    packet->mHolder = nullptr;  // last: from here on another queue may take it
    return self;
}

VeskQueue::State::Packet VeskQueue::State::dequeuePacket() {
    Packets dropped;  // stale tails of earlier calls; released after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning || mHead == nullptr) {
        return nullptr;
    }
    dropped.swap(mDropped);
    wakeStalled();
    Packet first = unlink(mHead.get());
    if (mHead == nullptr) mTail = first;
    return first;
}

VeskQueue::State::Packet VeskQueue::State::removePacket(Packet const& packet) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (packet->mHolder != this) {
        return nullptr;  // it has been taken out already, or another queue holds it
    }
    Packet next = packet->mNext;
    unlink(packet.get());
    wakeStalled();
    return next;
}

bool VeskQueue::State::replacePacket(Packet const& packet) {
    VeskFrame const& frame = *packet->mFrame;
    std::lock_guard<std::mutex> lock(mMutex);
    for (QueuedPacket* entry = mHead.get(); entry != nullptr; entry = entry->mNext.get()) {
        VeskFrame& pending = *entry->mFrame;
        if (!sameMessage(pending, frame)) continue;
        // The size before the copy: the length on the wire comes from data itself.
        pending.dataSize = static_cast<uint16_t>(pending.data.size());
        if (&pending != &frame) {
            pending.data = frame.data;
        }
        return true;
    }
    return false;
}

}  // namespace vesk
