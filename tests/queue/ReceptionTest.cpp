#include <vesk/VeskCC.h>

#include "support/VeskTest.h"

namespace vesk {
namespace {

class ReceptionTest : public VeskTest {};

TEST_F(ReceptionTest, AcknowledgementsLeaveTogether500msAfterTheFirst) {
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
        EXPECT_EQ(wire(true).size(), owed == 1000 ? 1U : 0U);
        callback->onSend(nullptr);
    }
}

TEST_F(ReceptionTest, AcknowledgementFrameIsTakenWholeOrNotAtAll) {
    struct {
        uint8_t topic, business, type;
        uint16_t reply;
        size_t bytes, left;
    } const rows[] = {
            {0xAA, 0xAA, 1, 2, 8, 1}, {0xAA, 0xAA, 1, 2, 9, 1},  // the rest is no entry
            {0xAA, 0xAA, 1, 2, 4, 3}, {0xAA, 0xAA, 1, 1, 8, 3}, {0xAA, 0xAA, 1, 2, 7, 3},
            {0xAA, 0xAA, 1, 0, 0, 3}, {0xAA, 1, 1, 2, 8, 3},    {2, 0xAA, 1, 2, 8, 3},
            {0xAA, 0xAA, 2, 2, 8, 3},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        queue->cleanup();
        for (uint16_t const id : Ids{1, 2, 3})
            send(id);
        std::vector<uint8_t> payload{0, 0, 2, 0, 0, 0, 3, 0, 0};
        payload.resize(row.bytes);
        peer.send(FarPeer::Frame{row.topic, row.business, row.type, row.reply, 0, 0xAA, payload});
        EXPECT_EQ(queue->awaitingAck(), row.left);
        EXPECT_EQ(queue->feedback().receivedPackets(), 0U);
    }
}

TEST_F(ReceptionTest, DelayIsTheTimeSinceSendingLessTheHoldTime) {
    struct {
        uint64_t elapsed;
        uint16_t hold;
        uint32_t delay, slow;
    } const rows[] = {{1501, 0, 1501, 1},
                      {1999, 498, 1501, 2},
                      {1600, 100, 1500, 0},
                      {0, 0x0102, 0xFFFFFEFE, 1}};
    VeskCC cc;
    for (auto const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.elapsed << '-' << row.hold);
        send(1);
        clock.advance(row.elapsed);
        peer.acknowledge(1, row.hold);
        EXPECT_EQ(queue->feedback().delay(), row.delay);
        EXPECT_EQ(queue->feedback().slowCount(), row.slow);
        cc.updateDelay(row.delay);
        EXPECT_EQ(cc.slowCount(), row.slow);
    }
    cc.cleanup();
    EXPECT_EQ(cc.slowCount(), 0U);
}

TEST_F(ReceptionTest, OfTwoPacketsWithOneSerialTheOlderIsReleased) {
    send(1);
    auto const younger = frame(2);
    younger->serialNumber = 1;
    clock.advance(1000);
    queue->enqueue(1, true, younger);
    clock.settle();
    peer.acknowledge(1);
    EXPECT_EQ(queue->feedback().delay(), 1000U);
    clock.advance(2000);
    EXPECT_TRUE(log.contains("VeskQueue", "send timeout:2"));
    EXPECT_FALSE(log.contains("VeskQueue", "send timeout:1"));
}

}  // namespace
}  // namespace vesk
