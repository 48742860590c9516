#include "support/VeskTest.h"

#include <quillex/SystemClock.h>

#include <future>

namespace vesk {
namespace {

class LooperTest : public VeskTest {
protected:
    /** Admits under the lock, so that the looper finds all of them pending at once. */
    void admitTogether(std::vector<Packet> packets) {
        {
            std::lock_guard<std::mutex> const lock(queue->mutex());
            for (Packet& packet : packets)
                ASSERT_TRUE(queue->enqueuePacket(packet));
        }
        clock.settle();
    }
};

TEST_F(LooperTest, WhatHappensIsLogged) {
    callback->onSend([&](auto const&) { EXPECT_EQ(queue->size(), 1); });
    send(7);
    clock.advance(2000);
    peer.send(request(0x8304));
    clock.advance(500);
    EXPECT_EQ(callback->sent().at(1),
              (std::vector<uint8_t>{0x55, 4, 0, 0xAA, 0xAA, 1, 1, 0, 0, 0, 0xAA, 0,  // header
                                    0xF4, 0x01, 0x04, 0x83}));  // held for 500 ms
    vesk->onChannelAvailable(true);
    vesk->onChannelAvailable(false);
    EXPECT_EQ(
            log.messages("VeskQueue"),
            (Strings{"enqueue:7; priority:1", "enqueuing packet:7",
                     "sendToChannel:7; serial:7;size:12", "send timeout:7",
                     "receiveFromChannel:33540,msgType:2,msg:33540", "ackToPeer serial:33540; 170",
                     "enqueuing packet:170", "sendToChannel:170; serial:0;size:16", "cleanup."}));
}

TEST_F(LooperTest, FullHistoryHoldsSendingUntilThereIsRoomOrTheFirstInLineGoes) {
    for (uint16_t id = 1; id <= 1000; ++id)
        queue->enqueue(1, true, frame(id));
    clock.settle();
    send(300);  // supersedes
    EXPECT_EQ(callback->sentCount(), 1001U);
    EXPECT_FALSE(log.contains("VeskQueue", "history is oversize"));
    send(1003);
    queue->enqueue(1, false, frame(1000));
    send(1001);
    send(1002);
    EXPECT_EQ(callback->sentCount(), 1001U);
    EXPECT_TRUE(log.contains("VeskQueue", "history is oversize"));

    queue->dequeuePacket();  // the first in line, which all have waited for
    rest();
    EXPECT_EQ(left().back(), 1000);
    peer.acknowledge(500);  // nothing else wakes the looper
    rest();
    EXPECT_EQ(left().back(), 1001);
    clock.advance(2000);
    EXPECT_EQ(left().back(), 1002);
    EXPECT_EQ(queue->awaitingAck(), 1U);
}

TEST_F(LooperTest, PacketTakenAwayDuringItsSendDoesNotDetainTheNext) {
    for (bool const cleansUp : {false, true}) {
        SCOPED_TRACE(cleansUp);
        callback->clear();
        Packet const first = packet(1, 1);
        callback->onSend([&](auto const&) {
            callback->onSend(nullptr);
            queue->removePacket(first);
            if (!cleansUp) return;
            queue->cleanup();
            queue->enqueue(1, false, frame(2));
        });
        admitTogether({first, packet(1, 2)});
        rest();
        EXPECT_EQ(left(), (std::vector<int>{1, 2}));
        EXPECT_TRUE(queue->empty());
    }
}

TEST_F(LooperTest, PacketDroppedJustBeforeItsSendIsNotSent) {
    static std::atomic<uint16_t> losses;
    losses = 0;
    admitTogether({packet(2, 9)});
    quillex::SystemClock::setSource(
            [] {  // the channel goes whenever the looper is without the lock
                VeskQueue& own = *Vesk::getInstance()->getQueue();
                uint16_t const left = losses.exchange(0);
                auto const isUnlocked = [&own] {
                    return std::unique_lock<std::mutex>(own.mutex(), std::try_to_lock).owns_lock();
                };
                bool const now = left > 0 && std::async(std::launch::async, isUnlocked).get();
                if (now) own.cleanup();
                if (now) own.enqueue(1, true, frame(left));
                losses = static_cast<uint16_t>(now ? left - 1 : left);
                return ShiftedClock::START;
            });
    losses = 2;
    queue->wake();
    ASSERT_TRUE(eventually([&] { return losses == 0 && queue->empty(); }));
    rest();
    EXPECT_EQ(left(), std::vector<int>{1});
}

TEST_F(LooperTest, PacketAdmittedDuringAPassIsHeldInFull) {
    Packet const removed = packet(1, 2);
    callback->onSend([&](auto const&) {
        clock.jump(5);  // the pass has read the clock before
        queue->removePacket(removed);
        queue->enqueue(2, false, frame(3));
        callback->onSend(nullptr);
    });
    admitTogether({packet(1, 1), removed});
    clock.advance(1999);
    EXPECT_EQ(left(), std::vector<int>{1});
    clock.advance(1);
    EXPECT_EQ(left(), (std::vector<int>{1, 3}));
}

TEST_F(LooperTest, DeadlinesAreMetWithoutAnyWakeUp) {
    auto const meets = [&](int64_t due, std::function<bool()> const& done) {
        clock.settle();
        clock.advance(static_cast<uint64_t>(due - 1));
        EXPECT_FALSE(done()) << due;
        clock.jump(1);
        EXPECT_TRUE(eventually(done)) << due;
    };
    queue->enqueue(2, false, frame(1));
    meets(2000, [&] { return queue->empty(); });
    send(2);
    meets(2000, [&] { return queue->awaitingAck() == 0; });
    peer.send(request(1));
    meets(500, [&] { return queue->owedAcks() == 0; });
    for (int const serial : {4, 3, 3, 1, 9})  // five do not wait
        peer.send(request(static_cast<uint16_t>(serial)));
    EXPECT_TRUE(eventually([&] { return queue->owedAcks() == 0; }));
}

TEST_F(LooperTest, TimeThatASendTakesDoesNotPutOffItsExpiry) {
    callback->onSend([&](auto const&) { clock.jump(1999); });
    queue->enqueue(1, true, frame(7));
    rest();
    clock.jump(1);
    EXPECT_TRUE(eventually([&] { return queue->awaitingAck() == 0; },
                           std::chrono::milliseconds(1500)));  // it would be put off by 2000
}

TEST_F(LooperTest, AcknowledgementsAndExpiriesGetTheirTurnUnderUnbrokenSending) {
    std::atomic<int> sends{0};
    callback->onSend([&](auto const&) {
        clock.jump(10);
        if (sends == 0) {
            for (uint16_t serial = 1; serial <= 5; ++serial)
                peer.send(request(serial));
        }
        bool const done = queue->awaitingAck() == 0 && queue->owedAcks() == 0;
        if (!done && ++sends < 2000) queue->enqueue(1, false, frame(1));
    });
    queue->enqueue(1, true, frame(7));
    rest();
    EXPECT_TRUE(FarPeer::isAck(FarPeer::decode(callback->sent().at(2))));  // behind one pending
    EXPECT_EQ(log.count("VeskQueue", "send timeout:7"), 1U);
    EXPECT_LE(sends, 210);
}

TEST_F(LooperTest, APassThatTakesLongIsInterruptedForAcknowledgements) {
    int hold = 0;
    callback->onSend([&](auto const& bytes) {
        clock.jump(10);
        FarPeer::Frame const sent = FarPeer::decode(bytes);
        if (FarPeer::isAck(sent)) hold = FarPeer::ackEntries(sent).at(0).hold;
    });
    peer.send(request(1));
    std::vector<Packet> packets;
    for (uint16_t id = 1; id <= 200; ++id)
        packets.push_back(packet(1, id));
    admitTogether(packets);
    EXPECT_EQ(left().size(), 200U);
    EXPECT_EQ(hold, 500);
}

}  // namespace
}  // namespace vesk
