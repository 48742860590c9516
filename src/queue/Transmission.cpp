// Handing due packets to the channel, and recording those that await acknowledgement.

#include <vesk/Vesk.h>

#include <quillex/SystemClock.h>

#include <utility>

#include "core/DebugLog.h"
#include "queue/QueueRules.h"
#include "queue/QueueState.h"

namespace vesk {

void VeskQueue::State::sendDuePackets(Pass& pass) {
    pass.sendTime = quillex::SystemClock::uptimeMillis();
    std::vector<uint8_t> bytes;
    while (VeskFrame const* const frame = nextDeparture(pass, bytes)) {
        debugLog(QUEUE_TAG, "sendToChannel:", frame->msgId, "; serial:", frame->serialNumber,
                 ";size:", bytes.size());
        // The host may do anything in there: take this packet out, admit it again, stop the queue,
        // let its last owner go. Nothing that was known before is taken for true behind it.
        Vesk::getInstance()->sendToChannel(std::move(bytes));
        mFeedback.sendPackets(1);
        // Destructors of frames may do the same. So they run here, before the next one is picked.
        pass.released.clear();
    }
    pass.released.clear();
}

VeskFrame const* VeskQueue::State::nextDeparture(Pass& pass, std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (Packet& dropped : mDropped)
        letGo(std::move(dropped), pass.released);
    mDropped.clear();
    QueuedPacket* const due = findDue(placeInChain(pass), pass);
    if (due == nullptr) {
        return nullptr;
    }
    if (!addToHistoryList(due, pass.sendTime)) {
        // It stays first in line, and everything behind it waits too, owed acknowledgements
        // included: they are pending packets like all others.
        debugLog(QUEUE_TAG, "history is oversize");
        mHistoryWasFull = true;
        return nullptr;
    }
    // All in one step with the record: the acknowledgement may come back from inside the callback,
    // and replacePacket() may want the frame at any time.
    due->updateSendTime(pass.sendTime);
    due->mFrame->serialze(bytes);
    if (due->mNeedRetransmission) pass.lowerWait(mTimeout);
    mSending = due;
    --pass.budget;
    pass.hasSent = true;
    pass.hasSentData |= due->mFrame->msgType != ACKNOWLEDGEMENT;
    return due->mFrame.get();
}

/** Where the walk goes on; null where it ends. What has been sent leaves the chain here. */
VeskQueue::QueuedPacket* VeskQueue::State::placeInChain(Pass& pass) {
    if (!pass.hasSent) {
        pass.budget = mPending;
        return mHead.get();
    }
    if (mSending == nullptr) {
        // Someone else has taken it out meanwhile, and with it the place: another pass looks again.
        if (mInHand != nullptr) letGo(std::move(mInHand), pass.released);
        if (mHead != nullptr) pass.wait = 0;
        return nullptr;
    }
    QueuedPacket* const next = mSending->mNext.get();
    letGo(unlink(std::exchange(mSending, nullptr)), pass.released);
    if (next != nullptr && mustEnd(pass)) {
        pass.wait = 0;
        return nullptr;
    }
    return next;
}

// Owed acknowledgements and expiries must get their turn under unbroken sending: a pass sends no
// more packets than were pending when it began, and for no longer than acknowledgements may wait.
// It ends as soon as acknowledgements are due, but not before something else than these has left: a
// peer that sends without pause could hold back everything else.
bool VeskQueue::State::mustEnd(Pass const& pass) const {
    uint64_t const now = quillex::SystemClock::uptimeMillis();
    return pass.budget <= 0 || elapsed(now, pass.sendTime) >= ACK_BATCH_AGE_MS ||
           (pass.hasSentData && acksAreDue(now));
}

VeskQueue::QueuedPacket* VeskQueue::State::findDue(QueuedPacket* from, Pass& pass) const {
    for (QueuedPacket* entry = from; entry != nullptr && mRunning; entry = entry->mNext.get()) {
        uint64_t const age = elapsed(pass.sendTime, entry->enqueueTime());
        if (entry->mPriority == IMMEDIATE_PRIORITY || age >= mTimeout) {
            return entry;
        }
        pass.lowerWait(mTimeout - age);
    }
    return nullptr;
}

bool VeskQueue::State::addToHistoryList(QueuedPacket* packet, uint64_t sendTime) {
    if (!packet->mNeedRetransmission) {
        return true;
    }
    VeskFrame const& frame = *packet->mFrame;
    if (Packet superseded = mWaitAckList.takeByMsgId(frame.msgId); superseded != nullptr) {
        mDropped.push_back(std::move(superseded));
        ++mSuperseded;
    }
    if (mWaitAckList.size() >= mMaxHistory) {
        return false;
    }
    mWaitAckList.append(packet, frame, sendTime);
    return true;
}

}  // namespace vesk
