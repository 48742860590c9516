#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <vesk/Vesk.h>
#include <vesk/testkit/Await.h>
#include <vesk/testkit/CapturedLog.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

namespace vesk {

using testkit::CapturedLog;
using testkit::eventually;
using testkit::FarPeer;
using testkit::RecordingCallback;
using testkit::ShiftedClock;

using Packet = android::sp<VeskQueue::QueuedPacket>;
using Strings = std::vector<std::string>;

/**
 * A host with a fresh callback, a captured log and a clock that stands still. Clients 1 to 9 and
 * both topics are gone after each test, so the tests may share one process.
 */
class VeskTest : public testing::Test {
protected:
    static constexpr int CONSUMER = VeskSessionManager::CONSUMER;
    static constexpr int PROVIDER = VeskSessionManager::PROVIDER;

    VeskTest() {
        vesk->init(callback);
        clock.settle();
        log.clear();
    }

    void TearDown() override {
        vesk->init(new RecordingCallback);  // the hooks' variables are gone
        for (uint32_t client = 1; client <= 9; ++client)
            sessions->removeSessionByClient(client);
        vesk->removeTopic("test");
        vesk->removeTopic("virtualcomm");
        clock.settle();  // a send under way is counted when it returns
        vesk->onChannelAvailable(false);
        clock.settle();
    }

    /** A frame of topic "test", business "test". */
    static std::shared_ptr<VeskFrame> frame(uint16_t msgId, uint8_t type = 2, uint16_t reply = 0) {
        auto frame = VeskFrame::obtainFrame(false);
        frame->topicId = 2;
        frame->businessId = 1;
        frame->msgType = type;
        frame->reply = reply;
        frame->msgId = msgId;
        frame->serialNumber = msgId;
        return frame;
    }

    static FarPeer::Frame request(uint16_t serialNumber) {
        return {2, 1, 2, 0, serialNumber, serialNumber, {}};
    }

    static Packet packet(int priority, uint16_t msgId, bool needAck = false) {
        return new VeskQueue::QueuedPacket(priority, needAck, frame(msgId));
    }

    /** Sends a packet that awaits acknowledgement. */
    void send(uint16_t msgId) {
        queue->enqueue(1, true, frame(msgId));
        clock.settle();
    }

    int join(int client, int type) {
        return sessions->createSession(client, type, "test", "test", false);
    }

    /** Waits until the looper sleeps, without waking it: what it was not told, it does not do. */
    void rest() const {
        ASSERT_TRUE(eventually([this] { return queue->idle(); }));
    }

    /** The msgIds of the data frames that have left, in the order of leaving. */
    std::vector<int> left() const {
        std::vector<int> ids;
        for (auto const& bytes : callback->sent()) {
            FarPeer::Frame const frame = FarPeer::decode(bytes);
            if (!FarPeer::isAck(frame)) ids.push_back(frame.msgId);
        }
        return ids;
    }

    /** The lower half of the time runs over within the first second of each test. */
    static constexpr uint64_t START = (2ULL << 32) - 1000;

    CapturedLog log;
    ShiftedClock clock{nullptr, START};
    Vesk* vesk = Vesk::getInstance();
    VeskSessionManager* sessions = vesk->getSessionManager();
    std::shared_ptr<VeskQueue> queue = vesk->getQueue();
    android::sp<RecordingCallback> callback = new RecordingCallback;
    FarPeer peer;
};

}  // namespace vesk
