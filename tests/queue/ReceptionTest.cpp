#include "support/VeskTest.h"

namespace vesk {
namespace {

class ReceptionTest : public VeskTest {
protected:
    void send(uint16_t msgId, uint16_t serialNumber) {
        auto const sent = frame(msgId);
        sent->serialNumber = serialNumber;
        queue->enqueue(1, true, sent);
        clock.settle();
    }

    std::vector<int> serialsAcknowledged() const {
        std::vector<int> serials;
        for (auto const& ack : acksLeft()) {
            for (auto const& entry : FarPeer::ackEntries(ack))
                serials.push_back(entry.serialNumber);
        }
        return serials;
    }
};

TEST_F(ReceptionTest, LoneAcknowledgementLeavesAfter500ms) {
    peer.send(request(0x8304));
    clock.advance(200);
    peer.send(request(0x0506));
    clock.advance(299);
    EXPECT_EQ(callback->sentCount(), 0U);
    clock.advance(1);
    ASSERT_EQ(callback->sentCount(), 1U);
    EXPECT_EQ(callback->sent()[0],
              (std::vector<uint8_t>{0x55, 8,    0,    0xAA, 0xAA, 1, 2, 0, 0, 0, 0xAA, 0,  // header
                                    0xF4, 0x01, 0x04, 0x83,     // held for 500 ms
                                    0x2C, 0x01, 0x06, 0x05}));  // held for 300 ms
    EXPECT_TRUE(log.contains("VeskQueue", "ackToPeer serial:33540; 170"));
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_EQ(queue->feedback().sentPackets(), 1U);
    EXPECT_EQ(queue->feedback().receivedPackets(), 2U);

    peer.send(request(7));  // the age counts anew
    clock.advance(499);
    EXPECT_EQ(callback->sentCount(), 1U);
    clock.advance(1);
    EXPECT_EQ(serialsAcknowledged(), (std::vector<int>{0x8304, 0x0506, 7}));
}

TEST_F(ReceptionTest, FiveOwedAcknowledgementsLeaveAtOnce) {
    for (uint16_t const serial : Ids{4, 3, 3, 1})
        peer.send(request(serial));
    clock.settle();
    EXPECT_EQ(callback->sentCount(), 0U);
    peer.send(request(9));  // nothing else wakes the looper
    rest();
    EXPECT_EQ(callback->sentCount(), 1U);
    EXPECT_EQ(serialsAcknowledged(), (std::vector<int>{4, 3, 3, 1, 9}));
}

TEST_F(ReceptionTest, UpTo1000OwedAcknowledgementsLeaveAndMoreAreForgotten) {
    for (uint16_t const owed : Ids{1000, 1001}) {
        SCOPED_TRACE(owed);
        callback->clear();
        Gate gate(*callback);
        queue->enqueue(1, false, frame(1));
        ASSERT_TRUE(gate.reached());
        for (uint16_t serial = 1; serial <= owed; ++serial)
            peer.send(request(serial));
        EXPECT_EQ(queue->owedAcks(), owed);
        gate.open();
        clock.settle();
        EXPECT_EQ(queue->owedAcks(), 0U);
        EXPECT_EQ(acksLeft().size(), owed == 1000 ? 1U : 0U);
        EXPECT_EQ(serialsAcknowledged().size(), owed == 1000 ? 1000U : 0U);
        callback->onSend(nullptr);
    }
}

TEST_F(ReceptionTest, HoldTimeSurvivesTheWrapOfItsClock) {
    clock.jump(0xFFFFFF00 - static_cast<int64_t>(clock.now()));
    peer.send(request(1));
    clock.advance(500);
    ASSERT_EQ(acksLeft().size(), 1U);
    EXPECT_EQ(FarPeer::ackEntries(acksLeft()[0])[0].hold, 500);
}

TEST_F(ReceptionTest, AcknowledgementFrameIsTakenWholeOrNotAtAll) {
    struct {
        char const* what;
        void (*damage)(FarPeer::Frame&);
        size_t left;
    } const rows[] = {
            {"intact", [](FarPeer::Frame&) {}, 1},
            {"one entry counted as two", [](FarPeer::Frame& f) { f.payload.resize(4); }, 3},
            {"two entries counted as one", [](FarPeer::Frame& f) { f.reply = 1; }, 3},
            {"9 bytes are two entries", [](FarPeer::Frame& f) { f.payload.resize(9); }, 1},
            {"7 bytes are one", [](FarPeer::Frame& f) { f.payload.resize(7); }, 3},
            {"empty",
             [](FarPeer::Frame& f) {
                 f.payload.clear();
                 f.reply = 0;
             },
             3},
            {"other business", [](FarPeer::Frame& f) { f.businessId = 1; }, 3},
            {"other topic", [](FarPeer::Frame& f) { f.topicId = 2; }, 3},
            {"other type", [](FarPeer::Frame& f) { f.msgType = 2; }, 3},
            {"unknown serial", [](FarPeer::Frame& f) { f.payload[2] = 99; }, 2},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        queue->cleanup();
        for (uint16_t const id : Ids{1, 2, 3})
            send(id, id);
        FarPeer::Frame ack = FarPeer::ackFrame({{0, 2}, {0, 3}});
        row.damage(ack);
        peer.send(ack);
        EXPECT_EQ(queue->awaitingAck(), row.left);
        EXPECT_EQ(queue->feedback().receivedPackets(), 0U);
        EXPECT_EQ(queue->owedAcks(), 0U);
    }
}

TEST_F(ReceptionTest, DelayIsTheTimeSinceSendingLessTheHoldTime) {
    struct {
        uint64_t elapsed;
        uint16_t hold;
        uint32_t delay;
        uint32_t slow;
    } const rows[] = {
            {1500, 0, 1500, 0},   {1501, 0, 1501, 1},         {1999, 498, 1501, 1},
            {1600, 100, 1500, 0}, {0, 0x0102, 0xFFFFFEFE, 1}, {300, 300, 0, 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.elapsed << '-' << row.hold);
        queue->cleanup();
        send(1, 1);
        clock.advance(row.elapsed);
        peer.acknowledge(1, row.hold);
        EXPECT_EQ(queue->feedback().delay(), row.delay);
        EXPECT_EQ(queue->feedback().slowCount(), row.slow);
    }
}

TEST_F(ReceptionTest, OfTwoPacketsWithOneSerialTheOlderIsReleased) {
    send(1, 5);
    clock.advance(1000);
    send(2, 5);
    peer.acknowledge(5);
    EXPECT_EQ(queue->awaitingAck(), 1U);
    EXPECT_EQ(queue->feedback().delay(), 1000U);
    clock.advance(2000);
    EXPECT_TRUE(log.contains("VeskQueue", "send timeout:2"));
    EXPECT_FALSE(log.contains("VeskQueue", "send timeout:1"));
}

TEST_F(ReceptionTest, DataFrameOfTheCatalogueIsCountedAndOwedDeliveredOrNot) {
    struct {
        uint8_t topic, business, type;
        unsigned accepted;
    } const rows[] = {{2, 1, 2, 1}, {1, 13, 3, 1}, {2, 1, 4, 1},       {2, 1, 0, 1},
                      {2, 2, 2, 0}, {3, 1, 2, 0},  {0xAA, 0xAA, 2, 0}, {2, 1, 1, 0}};
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        queue->cleanup();
        peer.send(FarPeer::Frame{row.topic, row.business, row.type, 0, 1, 1, {}});
        EXPECT_EQ(queue->feedback().receivedPackets(), row.accepted);
        EXPECT_EQ(queue->owedAcks(), row.accepted);
    }
    EXPECT_TRUE(callback->deliveries().empty());  // no topic is present
}

TEST_F(ReceptionTest, FrameReceivedTwiceIsDeliveredAndAcknowledgedTwice) {
    vesk->createTopic("test", false);
    int const provider = join(1, PROVIDER);
    for (int i = 0; i < 2; ++i)
        peer.send(FarPeer::Frame{2, 1, 2, 17, 5, 7, {0xD1, 0xD2}});
    EXPECT_TRUE(log.contains("VeskQueue", "receiveFromChannel:5,msgType:2,msg:7"));
    auto const deliveries = callback->deliveries();
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[1].sessionId, static_cast<uint32_t>(provider));
    EXPECT_FALSE(deliveries[1].local);
    EXPECT_EQ(deliveries[1].frame->reply, 17);
    EXPECT_EQ(deliveries[1].frame->data, (std::vector<uint8_t>{0xD1, 0xD2}));
    clock.advance(500);
    EXPECT_EQ(serialsAcknowledged(), (std::vector<int>{5, 5}));
}

}  // namespace
}  // namespace vesk
