#include "queue/QueueTest.h"

#include <malloc.h>

#include <quillex/Log.h>
#include <vesk/VeskCC.h>

namespace vesk {
namespace {

TEST_F(QueueTest, AcknowledgementIsAppliedWholeOrNotAtAll) {
    for (uint16_t id = 1; id <= 4; ++id)
        send(id);
    for (int const id : {5, 6, 6}) {  // the last one supersedes
        clock.advance(10);
        auto const younger = frame(static_cast<uint16_t>(id));
        younger->serialNumber = 1;
        queue->enqueue(1, true, younger);
        rest();
    }
    clock.advance(1570);
    for (auto const name : {&FarPeer::Frame::topicId, &FarPeer::Frame::businessId}) {
        auto foreign = FarPeer::ackFrame({{0, 1}});
        --(foreign.*name);
        peer.send(foreign);
    }
    std::tuple<std::vector<FarPeer::Ack>, uint16_t, size_t, char const*> const rows[] = {
            {{{40, 1}, {30, 2}}, 1, 8, "0 6 0 7 0 0 0, 0 0 1 0"},
            {{{40, 1}, {30, 2}}, 3, 8, "0 6 0 7 0 0 0, 0 0 1 0"},
            {{{1602, 1}, {99, 2}}, 2, 9, "0 4 0 7 0 1501 2, 2 0 1 0"},
            // The second of three that had this serial number, sent 10 ms after the first.
            {{{1, 77}, {90, 1}, {1, 78}}, 3, 15, "0 3 0 7 0 1500 0, 3 0 1 0"}};
    for (auto const& [entries, reply, bytes, expected] : rows) {
        auto frame = FarPeer::ackFrame(entries);
        frame.reply = reply;
        frame.payload.resize(bytes);
        peer.send(frame);
        EXPECT_EQ(state(), expected) << reply << ' ' << bytes;
    }
    std::vector<FarPeer::Ack> many(16380, {0, 77});  // 16383 fill a frame
    many.insert(many.end(), {{0, 3}, {0, 4}, {0, 1}});
    peer.send(FarPeer::ackFrame(many));
    EXPECT_EQ(state(), "0 0 0 7 0 1570 3, 6 0 1 0");
    callback->onSend([&](auto const&) { clock.jump((1LL << 32) + 7), peer.acknowledge(1); });
    send(1);
    EXPECT_EQ(state(), "0 0 0 8 0 7 0, 7 0 1 0");
}

TEST_F(QueueTest, HoldTimeIsModulo16BitsAndMoreThan1000OwedAreForgotten) {
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

TEST_F(QueueTest, FeedbackCountsModulo32BitsAndSlowDeliveriesInARow) {
    VeskFeedback feedback;
    VeskCC cc;
    auto const numbers = [&] {
        return std::vector<uint32_t>{feedback.sentPackets(), feedback.receivedPackets(),
                                     feedback.delay(), feedback.slowCount(), cc.slowCount()};
    };
    for (int const n : {3, -5, INT32_MAX})
        feedback.sendPackets(n), feedback.receivePackets(2 - n);
    std::pair<uint32_t, uint32_t> const slowAfter[] = {{1600, 1},       {1501, 2}, {1500, 0},
                                                       {UINT32_MAX, 1}, {0, 0},    {9999, 1}};
    for (auto const& [delay, slow] : slowAfter) {
        feedback.updateDelay(delay);
        cc.updateDelay(delay);
        EXPECT_EQ(numbers(), (std::vector<uint32_t>{0x7FFFFFFD, 0x80000009, delay, slow, slow}));
    }
    feedback.cleanup();
    cc.cleanup();
    EXPECT_EQ(numbers(), std::vector<uint32_t>(5));
}

TEST_F(QueueTest, WhatStandsBehindAnAcknowledgementIsNone) {
    send(1);
    send(2);
    auto const ack = VeskFrame::obtainFrame(false);
    ack->reply = 1;
    ack->data = {0, 0, 1, 0, 0, 0, 2, 0};
    ack->data.resize(4);  // the memory behind it still has an entry for the other frame
    queue->receiveAckMessage(ack);
    EXPECT_EQ(queue->awaitingAck(), 1U);
}

}  // namespace
}  // namespace vesk
