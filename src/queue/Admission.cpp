// Putting packets into the pending chain, taking them out and replacing their data.

#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>

#include <quillex/SystemClock.h>

#include <utility>

#include "core/DebugLog.h"
#include "queue/QueueRules.h"

namespace vesk {

namespace {

bool sameMessage(VeskFrame const& a, VeskFrame const& b) {
    return a.topicId == b.topicId && a.businessId == b.businessId && a.msgId == b.msgId &&
           a.msgType == b.msgType && a.reply == b.reply;
}

}  // namespace

void VeskQueue::enqueue(int priority, bool needRetransmission, std::shared_ptr<VeskFrame> frame) {
    if (!frame) {
        return;
    }
    debugLog(QUEUE_TAG, "enqueue:", frame->msgId, "; priority:", priority);
    android::sp<QueuedPacket> packet =
            new QueuedPacket(priority, needRetransmission, std::move(frame));
    push(packet);
}

void VeskQueue::push(android::sp<QueuedPacket>& packet) {
    if (packet == nullptr || !packet->mFrame) {
        return;
    }
    uint64_t pending = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        pending = static_cast<uint64_t>(mPending.load());
        if (pending < mMaxQueueSize) {
            if (!enqueuePacket(packet)) {
                debugLog(QUEUE_TAG, "enqueue fail.");
            }
            wakeLooper();
            return;
        }
    }
    // Outside the lock: under overload every producer comes through here.
    debugLog(QUEUE_TAG, "oversize.", pending);
}

bool VeskQueue::enqueuePacket(android::sp<QueuedPacket>& packet) {
    if (packet == nullptr || !packet->mFrame) {
        return false;
    }
    debugLog(QUEUE_TAG, "enqueuing packet:", packet->mFrame->msgId);
    if (!mRunning) {
        debugLog(QUEUE_TAG, "sending a packet to died queue");
        return false;
    }
    if (isChained(packet.get())) {
        return false;
    }
    insertByPriority(packet);
    ++mPending;
    packet->mEnqueueTime = quillex::SystemClock::uptimeMillis();
    return true;
}

void VeskQueue::insertByPriority(android::sp<QueuedPacket> const& packet) {
    if (mHead == nullptr) {
        if (mTail != nullptr) mDropped.push_back(mTail);  // the stale one
        mHead = packet;
        mTail = packet;
    } else if (packet->mPriority < mHead->mPriority) {
        packet->mNext = mHead;
        mHead->mPrev = packet;
        mHead = packet;
    } else {
        android::sp<QueuedPacket> before = mTail;
        while (packet->mPriority < before->mPriority) {
            before = before->mPrev;
        }
        packet->mPrev = before;
        packet->mNext = before->mNext;
        (before->mNext == nullptr ? mTail : before->mNext->mPrev) = packet;
        before->mNext = packet;
    }
}

bool VeskQueue::isChained(QueuedPacket const* packet) const {
    return packet == mHead.get() || packet->mPrev != nullptr;
}

android::sp<VeskQueue::QueuedPacket> VeskQueue::dequeuePacket() {
    PacketList dropped;  // stale tails of earlier calls; let go of after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning || mHead == nullptr) {
        return nullptr;
    }
    dropped.swap(mDropped);
    android::sp<QueuedPacket> packet = mHead;
    mHead = packet->mNext;
    if (mHead != nullptr) {
        mHead->mPrev.clear();
    }
    packet->mNext.clear();
    --mPending;
    wakeStalled();
    return packet;
}

android::sp<VeskQueue::QueuedPacket> VeskQueue::removePacket(
        android::sp<QueuedPacket> const& packet) {
    if (packet == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isChained(packet.get())) {
        // cleanup() has been quicker. The chain's ends may belong to newer packets by now.
        return nullptr;
    }
    android::sp<QueuedPacket> next = packet->mNext;
    android::sp<QueuedPacket> const prev = packet->mPrev;
    (prev == nullptr ? mHead : prev->mNext) = next;
    (next == nullptr ? mTail : next->mPrev) = prev;
    packet->mPrev.clear();
    packet->mNext.clear();
    --mPending;
    wakeStalled();
    return next;
}

bool VeskQueue::replacePacket(android::sp<QueuedPacket>& packet) {
    if (packet == nullptr || !packet->mFrame) {
        return false;
    }
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

size_t VeskQueue::awaitingAck() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mWaitAckList.size();
}

size_t VeskQueue::owedAcks() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAckList.size();
}

}  // namespace vesk
