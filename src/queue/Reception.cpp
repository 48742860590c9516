// Frames from the channel, and the acknowledgements of both directions.

#include <vesk/Vesk.h>

#include <quillex/SystemClock.h>

#include <algorithm>
#include <utility>

#include "core/DebugLog.h"
#include "frame/ByteOrder.h"
#include "queue/QueueRules.h"
#include "queue/QueueState.h"

namespace vesk {

using quillex::SystemClock;

namespace {

bool isAcknowledgement(VeskFrame const& frame) {
    return frame.msgType == ACKNOWLEDGEMENT && frame.topicId == ACK_ID &&
           frame.businessId == ACK_ID;
}

uint32_t low32(uint64_t time) {
    return static_cast<uint32_t>(time);
}

std::shared_ptr<VeskFrame> makeAckFrame(size_t entries) {
    auto frame = std::make_shared<VeskFrame>();
    frame->topicId = ACK_ID;
    frame->businessId = ACK_ID;
    frame->msgType = ACKNOWLEDGEMENT;
    frame->reply = static_cast<uint16_t>(entries);
    frame->msgId = ACK_ID;
    frame->data.resize(ACK_ENTRY_SIZE * entries);
    return frame;
}

}  // namespace

void VeskQueue::State::receiveFromChannel(std::shared_ptr<VeskFrame> frame) {
    uint16_t const serialNumber = frame->serialNumber;
    debugLog(QUEUE_TAG, "receiveFromChannel:", serialNumber, ",msgType:", frame->msgType,
             ",msg:", frame->msgId);
    Vesk* const facade = Vesk::getInstance();
    // The topic is looked up before the type is known, and held from here on: one that is removed
    // meanwhile still gets its frame.
    auto const topic = facade->getTopicManager()->getTopic(frame->topicId);
    if (frame->msgType == ACKNOWLEDGEMENT) {
        if (isAcknowledgement(*frame)) {
            receiveAckMessage(*frame);
        }
        return;
    }
    // What nobody here can ever serve is not acknowledged, so that the peer sees it time out. What
    // could be served, but has no topic or session now, is: it has arrived.
    if (!facade->getConfig()->isBussinessSupport(frame->topicId, frame->businessId)) {
        return;
    }
    if (topic) {
        topic->receive(false, std::move(frame));
    }
    mFeedback.receivePackets(1);
    recordOwedAck(serialNumber);
}

void VeskQueue::State::recordOwedAck(uint16_t serialNumber) {
    bool sleeps = false;
    {
        // The clock is read before the lock is waited for: that wait is no part of the delay that
        // the peer measures.
        uint64_t const now = SystemClock::uptimeMillis();
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mRunning) {
            return;  // nobody would ever send it
        }
        if (mAckList.empty()) {
            mFirstAckTime = now;
        }
        if (mAckList.size() > MAX_OWED_ACKS) {
            ++mOwedUnrecorded;  // all of them will be forgotten: their number is all that counts
            return;
        }
        mAckList.emplace_back(now, serialNumber);
        sleeps = sleepsPastAcks() && wakeLooper();
    }
    if (sleeps) mCond.notify_one();
}

// A looper that is awake looks at what is owed before it sleeps.
bool VeskQueue::State::sleepsPastAcks() const {
    return mAsleep &&
           (mAckList.size() >= ACK_BATCH_COUNT || mSleepsUntil > mFirstAckTime + ACK_BATCH_AGE_MS);
}

size_t VeskQueue::State::owedAcks() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAckList.size() + mOwedUnrecorded;
}

void VeskQueue::State::receiveAckMessage(VeskFrame const& frame) {
    // The division drops a remainder of up to three bytes, which belong to no entry.
    if (frame.reply != frame.data.size() / ACK_ENTRY_SIZE) {
        return;
    }
    Released released;  // after the lock
    size_t count = 0;
    std::lock_guard<std::mutex> lock(mMutex);
    released.frames.reserve(std::min<size_t>(frame.reply, mWaitAckList.size()));
    uint32_t const now = low32(SystemClock::uptimeMillis());
    for (size_t i = 0; i < frame.reply; ++i) {
        uint8_t const* const entry = &frame.data[i * ACK_ENTRY_SIZE];
        uint16_t const hold = getU16(entry);
        Packet sent = mWaitAckList.takeBySerial(getU16(entry + 2));
        if (sent == nullptr) continue;  // nothing awaits it any more, or ever did
        mFeedback.updateDelay(now - (low32(sent->sendTime()) + hold));
        letGo(std::move(sent), released);
        ++count;
    }
    mAcknowledged += count;
    if (count != 0) {
        wakeStalled();
    }
}

// What a burst has taken is given back.
void VeskQueue::State::forgetOwedAcks() {
    mOwedUnrecorded = 0;
    mAckList.clear();
    if (mAckList.capacity() != USUAL_OWED_ACKS) {
        std::vector<AckMessage> usual;
        usual.reserve(USUAL_OWED_ACKS);
        mAckList.swap(usual);
    }
}

void VeskQueue::State::ackToPeer() {
    size_t const owed = mAckList.size();
    if (owed == 0 || owed > MAX_OWED_ACKS) {
        forgetOwedAcks();
        return;
    }
    auto frame = makeAckFrame(owed);
    uint32_t const now = low32(SystemClock::uptimeMillis());
    uint8_t* entry = frame->data.data();
    for (AckMessage const& ack : mAckList) {
        putU16(entry, static_cast<uint16_t>(now - low32(ack.receiveTime())));
        putU16(entry + 2, ack.msgSerialNumb());
        entry += ACK_ENTRY_SIZE;
        debugLog(QUEUE_TAG, "ackToPeer serial:", ack.msgSerialNumb(), "; ", frame->msgId);
    }
    forgetOwedAcks();
    // Not through enqueue(), whose bound would lose acknowledgements of a full queue.
    Packet packet = makePacket(IMMEDIATE_PRIORITY, false, std::move(frame));
    enqueuePacket(packet);
}

}  // namespace vesk
