#include <gtest/gtest.h>

#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

#include "EchoHost.h"

using vesk::Vesk;
using vesk::testkit::FarPeer;
using vesk::testkit::RecordingCallback;
using vesk::testkit::ShiftedClock;

namespace {

// The real library, the host's callback, and everything outside in the test's hands. What the host
// writes to its channel is recorded, so that the test can wait for it.
class EchoHostTest : public testing::Test {
protected:
    EchoHostTest() {
        Vesk::getInstance()->init(new EchoHost(
                [wire = wire](std::vector<uint8_t> bytes) { wire->sendToChannel(bytes); }));
        Vesk::getInstance()->createTopic("test", false);
        sessions->createSession(1, vesk::VeskSessionManager::PROVIDER, "test", "test", false);
    }
    ~EchoHostTest() override {
        Vesk::getInstance()->onChannelAvailable(false);
        sessions->removeSessionByClient(1);
        Vesk::getInstance()->removeTopic("test");
    }

    // A request from the peer's session 77, with serial number 5, to the business "test".
    void ask(FarPeer::Bytes payload) {
        peer.send(FarPeer::Frame{2, 1, vesk::REQUEST, 77, 5, 0, std::move(payload)});
    }

    FarPeer::Frame written(size_t index) const { return FarPeer::decode(wire->sent().at(index)); }

    android::sp<RecordingCallback> wire = new RecordingCallback;
    vesk::VeskSessionManager* sessions = Vesk::getInstance()->getSessionManager();
    ShiftedClock clock;
    FarPeer peer;
};

TEST_F(EchoHostTest, AnswersTheSessionThatAsked) {
    ask({'h', 'i'});

    ASSERT_TRUE(wire->waitForSent(1));
    EXPECT_EQ(written(0).msgType, vesk::REPLY);
    EXPECT_EQ(written(0).reply, 77);
    EXPECT_EQ(written(0).payload, (FarPeer::Bytes{'h', 'i'}));
}

TEST_F(EchoHostTest, AcknowledgesAfterHalfASecondThatNobodyWaitsFor) {
    ask({});
    clock.settle();
    ASSERT_EQ(wire->sentCount(), 1u);  // the reply alone

    clock.advance(500);

    ASSERT_EQ(wire->sentCount(), 2u);
    EXPECT_EQ(FarPeer::ackEntries(written(1)).at(0).serialNumber, 5);
}

}  // namespace
