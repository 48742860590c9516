#include "queue/QueueTest.h"

#include <vesk/VeskCC.h>

namespace vesk {
namespace {

class ReceptionTest : public QueueTest {};

TEST_F(ReceptionTest, EveryFrameIsDeliveredCountedAndOwedOrDropped) {
    struct {
        uint8_t topicId, businessId, msgType;
        bool accepted, delivered;
    } const rows[] = {
            {2, 1, 2, true, true},      {2, 1, 3, true, true},     {2, 1, 0, true, false},
            {2, 1, 255, true, false},   {1, 10, 2, true, false},   {2, 2, 2, false, false},
            {3, 1, 2, false, false},    {0, 0, 2, false, false},   {2, 1, 1, false, false},
            {170, 1, 1, false, false},  {1, 170, 1, false, false}, {170, 170, 2, false, false},
            {170, 170, 0, false, false}};
    vesk->createTopic("test", false);
    auto const provider = static_cast<uint16_t>(join(1, PROVIDER));
    send(9);
    callback->onReceive([&](RecordingCallback::Delivery const& delivery) {
        EXPECT_FALSE(delivery.local);
        EXPECT_EQ(state(), "0 1 0 1 0 0 0");  // counted and owed afterwards
    });
    for (auto const& row : rows) {
        vesk->onChannelAvailable(false);
        send(9);
        callback->clear();
        log.clear();
        auto frame = FarPeer::ackFrame({{0, 9}});
        frame.topicId = row.topicId;
        frame.businessId = row.businessId;
        frame.msgType = row.msgType;
        frame.serialNumber = 5;
        if (row.msgType == 3) frame.reply = provider;
        peer.send(frame);
        EXPECT_EQ(told(), "receiveFromChannel:5,msgType:" + std::to_string(row.msgType) +
                                  ",msg:170|0 1 " + (row.accepted ? "1 1 1 0 0" : "0 1 0 0 0"));
        EXPECT_EQ(callback->deliveries().size(), row.delivered ? 1U : 0U) << &row - rows;
    }
}

TEST_F(ReceptionTest, AcknowledgementIsAppliedWholeOrNotAtAll) {
    for (uint16_t id = 1; id <= 4; ++id)
        send(id);
    auto const younger = frame(5);
    younger->serialNumber = 1;
    clock.advance(10);
    queue->enqueue(1, true, younger);
    clock.settle();
    clock.advance(1590);
    struct {
        std::vector<FarPeer::Ack> entries;
        uint16_t reply;
        size_t bytes;
        char const* state;
    } const rows[] = {
            {{{40, 1}, {30, 2}}, 2, 4, "0 5 0 5 0 0 0"},
            {{{40, 1}, {30, 2}}, 1, 8, "0 5 0 5 0 0 0"},
            {{{40, 1}, {30, 2}}, 3, 8, "0 5 0 5 0 0 0"},
            {{}, 0, 3, "0 5 0 5 0 0 0"},
            {{{1, 77}, {1, 78}}, 2, 8, "0 5 0 5 0 0 0"},
            {{{40, 1}, {99, 2}}, 2, 9, "0 3 0 5 0 1501 2"},
            {{{1, 77}, {90, 1}, {1, 78}}, 3, 15, "0 2 0 5 0 1500 0"},  // of two, the younger
            {{{1, 1}}, 1, 4, "0 2 0 5 0 1500 0"},
            {{{1602, 3}}, 1, 4, "0 1 0 5 0 4294967294 1"},
            {{{0x0102, 4}}, 1, 4, "0 0 0 5 0 1342 0"}};
    for (auto const& row : rows) {
        auto frame = FarPeer::ackFrame(row.entries);
        frame.reply = row.reply;
        frame.payload.resize(row.bytes);
        peer.send(frame);
        EXPECT_EQ(state(), row.state) << &row - rows;
    }
    callback->onSend([&](auto const&) { clock.jump((1LL << 32) + 7), peer.acknowledge(1); });
    send(1);
    EXPECT_EQ(state(), "0 0 0 6 0 7 0");
}

TEST_F(ReceptionTest, FiveAcknowledgementsLeaveAtOnceAndFewer500MsAfterTheOldest) {
    peer.send(request(0x8301));
    clock.advance(300);
    peer.send(request(7));
    clock.advance(199);
    EXPECT_EQ(told(),
              "receiveFromChannel:33537,msgType:2,msg:33537|"
              "receiveFromChannel:7,msgType:2,msg:7|0 0 2 0 2 0 0");
    clock.advance(1);
    EXPECT_EQ(told(),
              "ackToPeer serial:33537; 170|ackToPeer serial:7; 170|enqueuing packet:170|"
              "sendToChannel:170; serial:0;size:20|0 0 0 1 2 0 0");
    EXPECT_EQ(callback->sent().back(),
              (std::vector<uint8_t>{0x55, 8,    0,    0xAA, 0xAA, 1, 2, 0, 0, 0, 0xAA, 0,  // header
                                    0xF4, 0x01, 0x01, 0x83, 200,  0, 7, 0}));
    receive(11, 14);
    clock.advance(499);
    EXPECT_EQ(state(), "0 0 4 1 6 0 0");
    peer.send(request(11));
    rest();
    EXPECT_EQ(state(), "0 0 0 2 7 0 0");
    EXPECT_EQ(acks().back().size(), 5U);
}

TEST_F(ReceptionTest, AThousandAcknowledgementsLeaveTogetherAndMoreAreForgotten) {
    duringSend([&] {
        receive(1, 1000);
        clock.jump(65536 + 5);
        EXPECT_EQ(queue->owedAcks(), 1000U);
    });
    for (size_t i = 0; i < 1000; ++i) {
        EXPECT_EQ(acks().at(0).at(i).serialNumber, i + 1);
        EXPECT_EQ(acks().at(0).at(i).hold, 5);  // modulo 2^16
    }
    duringSend([&] {
        receive(1, 1001);
        EXPECT_EQ(queue->owedAcks(), 1001U);
    });
    EXPECT_EQ(state(), "0 0 0 3 2001 0 0");
    receive(1, 5);
    rest();
    EXPECT_EQ(acks().size(), 2U);
}

TEST_F(ReceptionTest, FeedbackCountsModulo32BitsAndSlowDeliveriesInARow) {
    VeskFeedback feedback;
    VeskCC cc;
    feedback.sendPackets(3);
    feedback.sendPackets(-5);
    feedback.receivePackets(INT32_MAX);
    feedback.receivePackets(4);
    EXPECT_EQ(feedback.sentPackets(), 0xFFFFFFFEU);
    EXPECT_EQ(feedback.receivedPackets(), 0x80000003U);
    for (auto const& [delay, slow] : std::vector<std::pair<uint32_t, uint32_t>>{
                 {1600, 1}, {1501, 2}, {1500, 0}, {UINT32_MAX, 1}, {0, 0}, {9999, 1}}) {
        feedback.updateDelay(delay);
        cc.updateDelay(delay);
        EXPECT_EQ(feedback.delay(), delay);
        EXPECT_EQ(feedback.slowCount(), slow) << delay;
        EXPECT_EQ(cc.slowCount(), slow) << delay;
    }
    feedback.cleanup();
    cc.cleanup();
    EXPECT_EQ(feedback.sentPackets() + feedback.receivedPackets() + feedback.delay() +
                      feedback.slowCount() + cc.slowCount(),
              0U);
}

}  // namespace
}  // namespace vesk
