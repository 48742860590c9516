// Handing due packets to the channel, and recording those that await acknowledgement.

#include <vesk/Vesk.h>

#include <quillex/SystemClock.h>

#include <utility>

#include "core/DebugLog.h"
#include "frame/Acknowledgement.h"
#include "queue/QueueRules.h"
#include "queue/QueueState.h"

namespace vesk {

void VeskQueue::State::sendPacketToNetwork(unsigned long long& nextTime) {
    Run run{quillex::SystemClock::uptimeMillis()};
    std::vector<uint8_t> bytes;
    Packet packet = nextDeparture(run, nextTime, bytes);
    while (packet != nullptr) {
        VeskFrame const& frame = *packet->mFrame;
        debugLog(QUEUE_TAG, "sendToChannel:", frame.msgId, "; serial:", frame.serialNumber,
                 ";size:", bytes.size());
        Vesk::getInstance()->sendToChannel(std::move(bytes));
        mFeedback.sendPackets(1);
        packet = nextDeparture(run, nextTime, bytes);
    }
}

VeskQueue::State::Packet VeskQueue::State::nextDeparture(Run& run, unsigned long long& nextTime,
                                                         std::vector<uint8_t>& bytes) {
    Packets dropped;  // released after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    dropped.swap(mDropped);
    QueuedPacket* from = mHead.get();
    if (!run.begun) {
        run.budget = mPending;
    } else if (mSending == nullptr) {
        // Someone else has taken it out meanwhile, and with it the place in the chain: look again.
        if (from != nullptr) nextTime = 0;
        return nullptr;
    } else {
        from = mSending->mNext.get();
        unlink(mSending);  // the caller holds it
        if (from != nullptr && mustEnd(run)) {
            nextTime = 0;
            return nullptr;
        }
    }
    Packet due = findDue(from, run.start, nextTime);
    if (due == nullptr || !recordSend(due, run.start)) {
        return nullptr;
    }
    // All in one step with the record: the acknowledgement may come back from inside the callback,
    // and replacePacket() may want the frame at any time.
    due->mFrame->serialze(bytes);
    if (due->mNeedRetransmission) lowerTo(nextTime, mTimeout);
    mSending = due.get();
    --run.budget;
    run.begun = true;
    run.progressed |= !isAcknowledgement(*due->mFrame);
    return due;
}

// Owed acknowledgements and expiries must get their turn under unbroken sending: a run sends no
// more packets than were pending when it began, and for no longer than acknowledgements may wait. It
// ends as soon as acknowledgements are due, but not before something else than these has left.
bool VeskQueue::State::mustEnd(Run const& run) const {
    uint64_t const now = quillex::SystemClock::uptimeMillis();
    return run.budget <= 0 || elapsed(now, run.start) >= ACK_BATCH_AGE_MS ||
           (run.progressed && acksAreDue(now));
}

VeskQueue::QueuedPacket* VeskQueue::State::findDue(QueuedPacket* from, uint64_t now,
                                                   unsigned long long& nextTime) const {
    for (QueuedPacket* entry = from; entry != nullptr && mRunning; entry = entry->mNext.get()) {
        uint64_t const age = elapsed(now, entry->enqueueTime());
        if (entry->mPriority == IMMEDIATE_PRIORITY || age >= mTimeout) {
            return entry;
        }
        lowerTo(nextTime, mTimeout - age);
    }
    return nullptr;
}

bool VeskQueue::State::recordSend(Packet const& packet, uint64_t sendTime) {
    if (!addToHistoryList(packet, sendTime)) {
        debugLog(QUEUE_TAG, "history is oversize");
        mHistoryWasFull = true;
        return false;
    }
    packet->updateSendTime(sendTime);
    return true;
}

bool VeskQueue::State::addToHistoryList(Packet const& packet, uint64_t sendTime) {
    if (!packet->mNeedRetransmission) {
        return true;
    }
    VeskFrame const& frame = *packet->mFrame;
    if (Packet superseded = mWaitAckList.takeByMsgId(frame.msgId); superseded != nullptr) {
        mDropped.push_back(std::move(superseded));
    }
    if (mWaitAckList.size() >= mMaxHistory) {
        return false;
    }
    mWaitAckList.append(packet, frame, sendTime);
    return true;
}

}  // namespace vesk
