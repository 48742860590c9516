// Frames from the channel, and the acknowledgements of both directions.

#include <vesk/Vesk.h>

#include <quillex/SystemClock.h>

#include <algorithm>
#include <utility>

#include "core/DebugLog.h"
#include "frame/ByteOrder.h"
#include "frame/MessageType.h"
#include "queue/QueueRules.h"

namespace vesk {

using quillex::SystemClock;

namespace {

constexpr uint8_t ACK_ID = 0xAA;          // topic, business and msgId of an acknowledgement frame
constexpr size_t ACK_ENTRY_SIZE = 2 + 2;  // hold time in ms, serial number
constexpr size_t MAX_OWED_ACKS = 1000;
static_assert(MAX_OWED_ACKS * ACK_ENTRY_SIZE <= UINT16_MAX, "one frame carries all that are owed");

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

void VeskQueue::receiveFromChannel(std::shared_ptr<VeskFrame> frame) {
    if (!frame) {
        return;
    }
    debugLog(QUEUE_TAG, "receiveFromChannel:", frame->serialNumber, ",msgType:", frame->msgType,
             ",msg:", frame->msgId);
    Vesk* const facade = Vesk::getInstance();
    auto const topic = facade->getTopicManager()->getTopic(frame->topicId);
    if (frame->msgType == ACKNOWLEDGEMENT) {
        if (frame->topicId == ACK_ID && frame->businessId == ACK_ID) {
            receiveAckMessage(std::move(frame));
        }
        return;
    }
    if (!facade->getConfig()->isBussinessSupport(frame->topicId, frame->businessId)) {
        return;
    }
    if (topic) {
        topic->receive(false, frame);
    }
    mFeedback.receivePackets(1);
    recordOwedAck(frame->serialNumber);
}

void VeskQueue::recordOwedAck(uint16_t serialNumber) {
    uint64_t const now = SystemClock::uptimeMillis();
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning) {
        return;  // nobody would ever send it
    }
    if (mAckList.empty()) {
        mFirstAckTime = now;
    }
    mAckList.emplace_back(now, serialNumber);
    wakeLooper();
}

void VeskQueue::receiveAckMessage(std::shared_ptr<VeskFrame> frame) {
    if (!frame || frame->reply != frame->data.size() / ACK_ENTRY_SIZE) {
        return;
    }
    PacketList released;  // let go of after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    uint32_t const now = low32(SystemClock::uptimeMillis());
    for (size_t i = 0; i < frame->reply; ++i) {
        uint8_t const* const entry = &frame->data[i * ACK_ENTRY_SIZE];
        uint16_t const hold = getU16(entry);
        uint16_t const serial = getU16(entry + 2);
        auto const sent = std::find_if(mWaitAckList.begin(), mWaitAckList.end(),
                                       [serial](android::sp<QueuedPacket> const& packet) {
                                           return packet->mFrame->serialNumber == serial;
                                       });
        if (sent == mWaitAckList.end()) continue;
        mFeedback.updateDelay(now - (low32((*sent)->mSendTime) + hold));
        released.splice(released.end(), mWaitAckList, sent);
    }
    if (!released.empty()) {
        wakeStalled();
    }
}

void VeskQueue::ackToPeer() {
    size_t const owed = mAckList.size();
    if (owed == 0 || owed > MAX_OWED_ACKS) {
        mAckList.clear();
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
    mAckList.clear();
    android::sp<QueuedPacket> packet =
            new QueuedPacket(IMMEDIATE_PRIORITY, false, std::move(frame));
    enqueuePacket(packet);
}

}  // namespace vesk
