// Handing due packets to the channel, and the history of those that await acknowledgement.

#include <vesk/Vesk.h>

#include <quillex/SystemClock.h>

#include <algorithm>
#include <utility>

#include "core/DebugLog.h"
#include "queue/LooperThread.h"
#include "queue/QueueRules.h"

namespace vesk {

void VeskQueue::sendPacketToNetwork(unsigned long long& nextTime) {
    bool const onLooper = gLoopingQueue == this;
    android::sp<QueuedPacket> current;
    int budget = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        current = mHead;
        budget = mPending;
    }
    uint64_t const now = quillex::SystemClock::uptimeMillis();
    while (current != nullptr) {
        android::sp<QueuedPacket> due;
        PacketList dropped;  // let go of after the lock
        std::vector<uint8_t> bytes;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            due = nextDue(current, budget, now, nextTime);
            if (due == nullptr || !recordSend(due, now, nextTime, bytes)) return;
            dropped.swap(mDropped);
        }
        VeskFrame const& frame = *due->mFrame;
        debugLog(QUEUE_TAG, "sendToChannel:", frame.msgId, "; serial:", frame.serialNumber,
                 ";size:", bytes.size());
        Vesk::getInstance()->sendToChannel(std::move(bytes));
        if (onLooper && gLoopingQueue != this) {
            return;
        }
        mFeedback.sendPackets(1);
        current = removePacket(due);
        // Taken out meanwhile by someone else, it cannot tell what followed it: look again.
        if (current == nullptr && !empty()) nextTime = 0;
    }
}

android::sp<VeskQueue::QueuedPacket> VeskQueue::nextDue(android::sp<QueuedPacket> const& from,
                                                        int& budget, uint64_t now,
                                                        unsigned long long& nextTime) const {
    // Owed acknowledgements and expiries must get their turn under unbroken sending: a pass sends
    // no more packets than were pending when it began, and for no longer than acknowledgements may
    // wait. It also ends where another thread has taken its place in the chain away.
    bool const spent =
            budget <= 0 || elapsed(quillex::SystemClock::uptimeMillis(), now) >= ACK_BATCH_AGE_MS;
    if (spent || !isChained(from.get())) {
        nextTime = 0;
        return nullptr;
    }
    for (QueuedPacket* entry = from.get(); entry != nullptr && mRunning;
         entry = entry->mNext.get()) {
        uint64_t const age = elapsed(now, entry->mEnqueueTime);
        if (entry->mPriority == IMMEDIATE_PRIORITY || age >= mTimeout) {
            --budget;
            return entry;
        }
        lowerTo(nextTime, mTimeout - age);
    }
    return nullptr;
}

bool VeskQueue::recordSend(android::sp<QueuedPacket>& packet, uint64_t now,
                           unsigned long long& nextTime, std::vector<uint8_t>& bytes) {
    if (!addToHistoryList(packet)) {
        debugLog(QUEUE_TAG, "history is oversize");
        mHistoryWasFull = true;
        return false;
    }
    // All in one step with the record: the acknowledgement may come back from inside the callback,
    // and replacePacket() may want the frame at any time.
    packet->mSendTime = now;
    packet->mFrame->serialze(bytes);
    if (packet->mNeedRetransmission) {
        lowerTo(nextTime, mTimeout);
    }
    return true;
}

bool VeskQueue::addToHistoryList(android::sp<QueuedPacket>& packet) {
    if (packet == nullptr || !packet->mFrame || !packet->mNeedRetransmission) {
        return true;
    }
    auto const superseded = std::find_if(mWaitAckList.begin(), mWaitAckList.end(),
                                         [&](android::sp<QueuedPacket> const& entry) {
                                             return entry->mFrame->msgId == packet->mFrame->msgId;
                                         });
    if (superseded != mWaitAckList.end()) {
        mDropped.splice(mDropped.end(), mWaitAckList, superseded);
    }
    if (mWaitAckList.size() >= mMaxHistory) {
        return false;
    }
    mWaitAckList.push_back(packet);
    return true;
}

}  // namespace vesk
