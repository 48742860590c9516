// Putting packets into the pending chain, taking them out and replacing their data.

#include <vesk/VeskFrame.h>

#include <quillex/SystemClock.h>

#include <utility>

#include "core/DebugLog.h"
#include "queue/QueueRules.h"
#include "queue/QueueState.h"

namespace vesk {

namespace {

// What mEnqueueOrder, which has no other use, says of packets that the queue has made itself. A
// host that can read it finds 0.
constexpr uint64_t SEEN = 0;
constexpr uint64_t UNSEEN = 1;

bool sameMessage(VeskFrame const& a, VeskFrame const& b) {
    return a.topicId == b.topicId && a.businessId == b.businessId && a.msgId == b.msgId &&
           a.msgType == b.msgType && a.reply == b.reply;
}

}  // namespace

void VeskQueue::State::enqueue(int priority, bool needRetransmission,
                               std::shared_ptr<VeskFrame> frame) {
    debugLog(QUEUE_TAG, "enqueue:", frame->msgId, "; priority:", priority);
    Admission admission;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (hasRoom(admission)) {
            admit(makePacket(priority, needRetransmission, std::move(frame)), admission);
        }
    }
    finish(admission);
}

void VeskQueue::State::push(Packet packet) {
    Admission admission;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (hasRoom(admission)) admit(std::move(packet), admission);
    }
    finish(admission);
}

bool VeskQueue::State::hasRoom(Admission& admission) {
    // The bound holds for producers. What the queue puts in itself goes through enqueuePacket().
    admission.pending = static_cast<uint64_t>(mPending.load());
    admission.isRefused = admission.pending >= mMaxQueueSize;
    if (admission.isRefused) ++mRefused;
    return !admission.isRefused;
}

void VeskQueue::State::admit(Packet packet, Admission& admission) {
    if (!enqueuePacket(packet)) {
        debugLog(QUEUE_TAG, "enqueue fail.");
        ++mRefused;
        admission.released.push_back(std::move(packet));
    }
    admission.wakes = wakeLooper();
    for (Packet& dropped : mDropped)
        admission.released.push_back(std::move(dropped));
    mDropped.clear();
}

void VeskQueue::State::finish(Admission const& admission) {
    if (admission.wakes) mCond.notify_one();
    // Outside the lock: under overload every producer comes through here.
    if (admission.isRefused) debugLog(QUEUE_TAG, "oversize.", admission.pending);
}

bool VeskQueue::State::enqueuePacket(Packet& packet) {
    debugLog(QUEUE_TAG, "enqueuing packet:", packet->mFrame->msgId);
    if (!mRunning) {
        debugLog(QUEUE_TAG, "sending a packet to died queue");
        return false;
    }
    void const* holder = nullptr;
    if (!packet->mHolder.compare_exchange_strong(holder, this)) {
        return false;  // pending already, here or in another queue
    }
    packet->updateEnqueueTime(quillex::SystemClock::uptimeMillis());
    insertByPriority(std::move(packet));
    countPending(1);
    return true;
}

// The frame of every packet that the queue makes itself comes with two blocks of the heap, the
// packet and its counts, on one thread, and leaves them on another. So packets are used again, but
// for those that a host may have seen: what it holds must not change, nor outlive its use.
VeskQueue::State::Packet VeskQueue::State::makePacket(int priority, bool needRetransmission,
                                                      std::shared_ptr<VeskFrame> frame) {
    if (mSpare.empty()) {
        Packet packet = new QueuedPacket(priority, needRetransmission, std::move(frame));
        packet->mEnqueueOrder = UNSEEN;
        return packet;
    }
    Packet packet = std::move(mSpare.back());
    mSpare.pop_back();
    packet->mPriority = priority;
    packet->mNeedRetransmission = needRetransmission;
    packet->mFrame = std::move(frame);
    packet->updateSendTime(0);
    return packet;
}

void VeskQueue::State::letGo(Packet packet, Released& released) {
    bool const isOurs = packet->mEnqueueOrder == UNSEEN && packet->getStrongCount() == 1;
    if (!isOurs || mSpare.size() == SPARE_PACKETS) {
        released.packets.push_back(std::move(packet));
        return;
    }
    released.frames.push_back(std::move(packet->mFrame));
    mSpare.push_back(std::move(packet));
}

// It goes to the host. What is the host's own is not written to: other threads may read it.
void VeskQueue::State::markSeen(QueuedPacket& packet) {
    if (packet.mEnqueueOrder == UNSEEN) packet.mEnqueueOrder = SEEN;
}

// Readers do not take the lock; writers do, so that no single step has to be both.
void VeskQueue::State::countPending(int change) {
    mPending.store(mPending.load(std::memory_order_relaxed) + change, std::memory_order_release);
}

void VeskQueue::State::insertByPriority(Packet&& packet) {
    if (mHead == nullptr) {
        if (mTail != nullptr) mDropped.push_back(std::move(mTail));  // the stale one
        mHead = packet;
        mTail = std::move(packet);
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
    fromAfter = std::move(packet);
}

VeskQueue::State::Packet VeskQueue::State::unlink(QueuedPacket* packet) {
    QueuedPacket* const prev = packet->mPrev.get();
    QueuedPacket* const next = packet->mNext.get();
    Packet& fromBefore = prev == nullptr ? mHead : prev->mNext;
    Packet& fromAfter = next == nullptr ? mTail : next->mPrev;
    Packet self = std::move(fromBefore);
    fromBefore = std::move(packet->mNext);
    fromAfter = std::move(packet->mPrev);
    if (mSending == packet) {
        mSending = nullptr;
        if (mInHand != nullptr) mDropped.push_back(std::move(mInHand));
        mInHand = self;
    }
    countPending(-1);
    // Last: from here on another queue may take it.
    packet->mHolder.store(nullptr, std::memory_order_release);
    return self;
}

VeskQueue::State::Packet VeskQueue::State::dequeuePacket() {
    Packets dropped;  // stale tails of earlier calls; released after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning || mHead == nullptr) {
        return nullptr;
    }
    dropped.swap(mDropped);
    wakeStalled();  // the first in line may be the one for which the history had no room
    Packet first = unlink(mHead.get());
    if (mHead == nullptr) mTail = first;
    markSeen(*first);
    return first;
}

VeskQueue::State::Packet VeskQueue::State::removePacket(Packet const& packet) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (packet->mHolder != this) {
        return nullptr;  // it has been taken out already, or another queue holds it
    }
    Packet next = packet->mNext;
    if (next != nullptr) markSeen(*next);
    unlink(packet.get());
    wakeStalled();
    return next;
}

bool VeskQueue::State::replacePacket(Packet const& packet) {
    VeskFrame const& frame = *packet->mFrame;
    std::lock_guard<std::mutex> lock(mMutex);
    // Where several are the same message, the first in line is replaced, and it alone.
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
