#include "queue/QueueTest.h"

#include <malloc.h>

#include <thread>

#include <quillex/Log.h>
#include <quillex/SystemClock.h>
#include <vesk/VeskCC.h>

namespace vesk {
namespace {

class ReceptionTest : public QueueTest {};

TEST_F(ReceptionTest, EveryFrameIsDeliveredCountedAndOwedOrDropped) {
    std::tuple<uint8_t, uint8_t, uint8_t, bool, bool> const rows[] = {
            {2, 1, 2, true, true},     {2, 1, 3, true, true},     {2, 1, 0, true, false},
            {2, 1, 255, true, false},  {1, 10, 2, true, false},   {2, 2, 2, false, false},
            {3, 1, 2, false, false},   {0, 0, 2, false, false},   {2, 1, 1, false, false},
            {1, 170, 1, false, false}, {170, 1, 1, false, false}, {170, 170, 2, false, false}};
    vesk->createTopic("test", false);
    auto const provider = static_cast<uint16_t>(join(1, PROVIDER));
    callback->onReceive([&](RecordingCallback::Delivery const& delivery) {
        EXPECT_FALSE(delivery.local);
        EXPECT_EQ(state(), "0 1 0 1 0 0 0");  // counted and owed afterwards
    });
    for (auto const& [topicId, businessId, type, accepted, delivered] : rows) {
        vesk->onChannelAvailable(false);
        send(9);
        callback->clear();
        auto frame = FarPeer::ackFrame({{0, 9}});
        frame.topicId = topicId;
        frame.businessId = businessId;
        frame.msgType = type;
        if (type == 3) frame.reply = provider;
        play({{[&] { peer.send(frame); }, "receiveFromChannel:0,msgType:" + std::to_string(type) +
                                                  ",msg:170|0 1 " +
                                                  (accepted ? "1 1 1 0 0" : "0 1 0 0 0")}});
        EXPECT_EQ(callback->deliveries().size(), delivered ? 1U : 0U) << int{type};
    }
}

TEST_F(ReceptionTest, AcknowledgementIsAppliedWholeOrNotAtAll) {
    for (uint16_t id = 1; id <= 4; ++id)
        send(id);
    clock.advance(10);
    for (uint16_t id = 5; id <= 6; ++id) {
        auto const younger = frame(id);
        younger->serialNumber = 1;
        queue->enqueue(1, true, younger);
    }
    send(5);  // supersedes the middle one of three that have serial number 1
    clock.advance(1590);
    std::tuple<std::vector<FarPeer::Ack>, uint16_t, size_t, char const*> const rows[] = {
            {{{40, 1}, {30, 2}}, 2, 4, "0 6 0 7 0 0 0"},
            {{{40, 1}, {30, 2}}, 1, 8, "0 6 0 7 0 0 0"},
            {{{40, 1}, {30, 2}}, 3, 8, "0 6 0 7 0 0 0"},
            {{}, 0, 3, "0 6 0 7 0 0 0"},
            {{{1, 77}, {1, 78}}, 2, 8, "0 6 0 7 0 0 0"},
            {{{1602, 1}, {99, 2}}, 2, 9, "0 4 0 7 0 1501 2"},
            {{{1, 77}, {90, 1}, {1, 78}}, 3, 15, "0 3 0 7 0 1500 0"},  // of two, the younger
            {{{1, 1}}, 1, 4, "0 3 0 7 0 1500 0"}};
    for (auto const& [entries, reply, bytes, expected] : rows) {
        auto frame = FarPeer::ackFrame(entries);
        frame.reply = reply;
        frame.payload.resize(bytes);
        peer.send(frame);
        EXPECT_EQ(state(), expected) << reply << ' ' << bytes;
    }
    std::vector<FarPeer::Ack> many(16383, {0, 77});  // the most that a frame carries
    for (uint16_t id = 3; id <= 5; ++id)
        many[16377U + id].serialNumber = id;
    peer.send(FarPeer::ackFrame(many));
    EXPECT_EQ(state(), "0 0 0 7 0 1590 3");
    callback->onSend([&](auto const&) { clock.jump((1LL << 32) + 7), peer.acknowledge(1); });
    send(1);
    EXPECT_EQ(state(), "0 0 0 8 0 7 0");
}

TEST_F(ReceptionTest, FiveAcknowledgementsLeaveAtOnceAndFewer500MsAfterTheOldest) {
    receive(0x8301, 0x8301);
    clock.advance(300);
    play({{[&] { receive(7, 7), clock.advance(199); },
           "receiveFromChannel:7,msgType:2,msg:7|0 0 2 0 2 0 0"},
          {[&] { clock.advance(1); },
           "ackToPeer serial:33537; 170|ackToPeer serial:7; 170|enqueuing packet:170|"
           "sendToChannel:170; serial:0;size:20|0 0 0 1 2 0 0"}});
    EXPECT_EQ(callback->sent().back(),
              (std::vector<uint8_t>{0x55, 8,    0,    0xAA, 0xAA, 1, 2, 0, 0, 0, 0xAA, 0,  // header
                                    0xF4, 0x01, 0x01, 0x83, 200,  0, 7, 0}));
    receive(11, 14);
    clock.advance(499);
    EXPECT_EQ(state(), "0 0 4 1 6 0 0");
    receive(11, 11);
    rest();
    EXPECT_EQ(state(), "0 0 0 2 7 0 0");
}

TEST_F(ReceptionTest, HoldTimeIsModulo16BitsAndMoreThan1000OwedAreForgotten) {
    duringSend([&] { receive(1, 1000), clock.jump(65536 + 5); });
    EXPECT_EQ(FarPeer::ackEntries(FarPeer::decode(callback->sent().at(1))).at(999).hold, 5);
    quillex::Log::setSink(nullptr);  // what it keeps would be counted
    duringSend([&] {
        receive(1, 1001);
        EXPECT_EQ(queue->owedAcks(), 1001U);
        size_t const before = mallinfo2().uordblks;
        receive(1, 20000);
        EXPECT_LE(mallinfo2().uordblks, before + 200000);
        EXPECT_EQ(queue->owedAcks(), 21001U);
        queue->cleanup();
        EXPECT_EQ(queue->owedAcks(), 0U);
        receive(1, 2000);
    });
    EXPECT_EQ(queue->owedAcks(), 0U);
    EXPECT_EQ(callback->sentCount(), 3U);
}

TEST_F(ReceptionTest, FirstOwedAcknowledgementWakesTheLooper) {
    static std::thread::id receiver;
    receiver = std::this_thread::get_id();
    quillex::SystemClock::setSource(  // on the looper's thread, it is due already
            [] { return START + (std::this_thread::get_id() == receiver ? 0 : 500); });
    peer.send(request(1));
    rest();
    EXPECT_EQ(queue->owedAcks(), 0U);
}

TEST_F(ReceptionTest, FeedbackCountsModulo32BitsAndSlowDeliveriesInARow) {
    VeskFeedback feedback;
    VeskCC cc;
    feedback.sendPackets(3);
    feedback.sendPackets(-5);
    feedback.receivePackets(INT32_MAX);
    feedback.receivePackets(4);
    std::pair<uint32_t, uint32_t> const slowAfter[] = {{1600, 1},       {1501, 2}, {1500, 0},
                                                       {UINT32_MAX, 1}, {0, 0},    {9999, 1}};
    for (auto const& [delay, slow] : slowAfter) {
        feedback.updateDelay(delay);
        cc.updateDelay(delay);
        EXPECT_EQ(std::tuple(feedback.delay(), feedback.slowCount(), cc.slowCount()),
                  std::tuple(delay, slow, slow));
    }
    EXPECT_EQ(feedback.sentPackets(), 0xFFFFFFFEU);
    EXPECT_EQ(feedback.receivedPackets(), 0x80000003U);
    feedback.cleanup();
    cc.cleanup();
    EXPECT_EQ(feedback.sentPackets() | feedback.receivedPackets() | feedback.delay() |
                      feedback.slowCount() | cc.slowCount(),
              0U);
}

}  // namespace
}  // namespace vesk
