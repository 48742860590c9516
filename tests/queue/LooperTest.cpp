#include "support/VeskTest.h"

namespace vesk {
namespace {

class LooperTest : public VeskTest {
protected:
    void send(uint16_t msgId, bool needAck = true) {
        queue->enqueue(1, needAck, frame(msgId));
        clock.settle();
    }

    void fillHistory() {
        for (uint16_t id = 1; id <= 1000; ++id)
            queue->enqueue(1, true, frame(id));
        clock.settle();
        ASSERT_EQ(queue->awaitingAck(), 1000U);
    }

    /** How many frames left before the first acknowledgement. */
    size_t ackPlace() const {
        size_t place = 0;
        for (auto const& bytes : callback->sent()) {
            if (FarPeer::isAck(FarPeer::decode(bytes))) break;
            ++place;
        }
        return place;
    }

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

TEST_F(LooperTest, HeldPacketLeavesAt2000msNotBefore) {
    queue->enqueue(2, false, frame(1));
    clock.advance(1000);
    queue->enqueue(2, false, frame(2));
    clock.advance(999);
    EXPECT_EQ(callback->sentCount(), 0U);
    clock.advance(1);
    EXPECT_EQ(left(), std::vector<int>{1});
    EXPECT_EQ(queue->size(), 1);
    clock.advance(999);
    EXPECT_EQ(left(), std::vector<int>{1});
    clock.advance(1);
    EXPECT_EQ(left(), (std::vector<int>{1, 2}));
}

TEST_F(LooperTest, SentPacketIsLoggedAndCounted) {
    auto const sent = frame(7);
    sent->serialNumber = 9;
    sent->data = {1, 2, 3};
    queue->enqueue(1, false, sent);
    clock.settle();
    EXPECT_TRUE(log.contains("VeskQueue", "sendToChannel:7; serial:9;size:15"));
    EXPECT_EQ(queue->feedback().sentPackets(), 1U);
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_TRUE(queue->empty());
}

TEST_F(LooperTest, UnacknowledgedPacketExpiresAt2000msAndIsNotRepeated) {
    send(7);
    clock.advance(1999);
    EXPECT_EQ(queue->awaitingAck(), 1U);
    EXPECT_EQ(queue->feedback().slowCount(), 0U);
    clock.advance(1);
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_EQ(log.count("VeskQueue", "send timeout:7"), 1U);
    EXPECT_EQ(queue->feedback().delay(), 60000U);
    EXPECT_EQ(queue->feedback().slowCount(), 1U);
    EXPECT_EQ(left(), std::vector<int>{7});
}

TEST_F(LooperTest, LaterSendOfAMessageSupersedesTheEarlier) {
    send(7);
    auto const again = frame(7);
    again->serialNumber = 8;
    queue->enqueue(1, true, again);
    clock.settle();
    EXPECT_EQ(queue->awaitingAck(), 1U);
    peer.acknowledge(7);
    EXPECT_EQ(queue->awaitingAck(), 1U);
    peer.acknowledge(8);
    EXPECT_EQ(queue->awaitingAck(), 0U);
}

TEST_F(LooperTest, FullHistoryHoldsSendingUntilAnAcknowledgementAlone) {
    fillHistory();
    queue->enqueue(1, true, frame(1001));
    queue->enqueue(1, true, frame(1002));
    clock.settle();
    EXPECT_EQ(callback->sentCount(), 1000U);
    EXPECT_EQ(queue->size(), 2);
    EXPECT_TRUE(log.contains("VeskQueue", "history is oversize"));

    peer.acknowledge(500);  // nothing else wakes the looper
    rest();
    EXPECT_EQ(callback->sentCount(), 1001U);
    EXPECT_EQ(left().back(), 1001);
    EXPECT_EQ(queue->size(), 1);
    clock.advance(2000);
    EXPECT_EQ(left().back(), 1002);
    EXPECT_EQ(queue->awaitingAck(), 1U);
}

TEST_F(LooperTest, FullHistoryTakesAMessageThatSupersedes) {
    fillHistory();
    send(300);
    EXPECT_EQ(callback->sentCount(), 1001U);
    EXPECT_EQ(queue->awaitingAck(), 1000U);
    EXPECT_FALSE(log.contains("VeskQueue", "history is oversize"));
}

TEST_F(LooperTest, InsideItsSendAPacketIsPendingAndMayBeAcknowledged) {
    std::atomic<int> pending{-1};
    callback->onSend([&](auto const&) {
        pending = queue->size();
        clock.jump(30);
        peer.acknowledge(7, 10);
    });
    send(7);
    EXPECT_EQ(pending, 1);
    EXPECT_EQ(queue->size(), 0);
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_EQ(queue->feedback().delay(), 20U);
}

TEST_F(LooperTest, PacketTakenAwayDuringItsSendDoesNotDetainTheNext) {
    using Take = std::function<void(Packet const&)>;
    Take const takes[] = {[&](Packet const&) { queue->dequeuePacket(); },
                          [&](Packet const& sent) { queue->removePacket(sent); },
                          [&](Packet const&) {
                              queue->cleanup();
                              queue->enqueue(1, false, frame(2));
                          }};
    for (Take const& take : takes) {
        SCOPED_TRACE(&take - takes);
        callback->clear();
        Packet const first = packet(1, 1);
        callback->onSend([&](auto const&) {
            callback->onSend(nullptr);
            take(first);
        });
        admitTogether({first, packet(1, 2)});
        rest();
        EXPECT_EQ(left(), (std::vector<int>{1, 2}));
        EXPECT_TRUE(queue->empty());
    }
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
    EXPECT_EQ(left(), std::vector<int>{1});
    clock.advance(1999);
    EXPECT_EQ(left(), std::vector<int>{1});
    clock.advance(1);
    EXPECT_EQ(left(), (std::vector<int>{1, 3}));
}

TEST_F(LooperTest, TimesAheadOfThePassAreJustNow) {
    send(1);
    queue->enqueue(2, false, frame(2));
    peer.send(request(5));
    clock.jump(-1);
    clock.settle();
    EXPECT_EQ(left(), std::vector<int>{1});
    EXPECT_EQ(queue->awaitingAck(), 1U);
    EXPECT_EQ(queue->owedAcks(), 1U);
    clock.advance(500);  // 499 since the frame came
    EXPECT_EQ(queue->owedAcks(), 1U);
    clock.advance(1501);
    EXPECT_EQ(queue->owedAcks(), 0U);
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_EQ(left(), (std::vector<int>{1, 2}));
}

TEST_F(LooperTest, DeadlinesAreMetWithoutAnyWakeUp) {
    struct {
        char const* what;
        std::function<void()> begin;
        int64_t due;
        std::function<bool()> done;
    } const rows[] = {
            {"held packet", [&] { queue->enqueue(2, false, frame(1)); }, 2000,
             [&] { return queue->empty(); }},
            {"owed acknowledgement", [&] { peer.send(request(1)); }, 500,
             [&] { return queue->owedAcks() == 0; }},
            {"history", [&] { queue->enqueue(1, true, frame(2)); }, 2000,
             [&] { return queue->awaitingAck() == 0; }},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        row.begin();
        clock.settle();
        clock.advance(static_cast<uint64_t>(row.due - 1));
        EXPECT_FALSE(row.done());
        clock.jump(1);
        EXPECT_TRUE(eventually(row.done));
    }
}

TEST_F(LooperTest, TimeThatASendTakesDoesNotPutOffItsExpiry) {
    callback->onSend([&](auto const&) { clock.jump(1999); });
    queue->enqueue(1, true, frame(7));
    rest();
    clock.jump(1);
    EXPECT_TRUE(eventually([&] { return log.contains("VeskQueue", "send timeout:7"); },
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
    EXPECT_EQ(ackPlace(), 2U);  // behind the one that was pending when they fell due
    EXPECT_EQ(log.count("VeskQueue", "send timeout:7"), 1U);
    EXPECT_LE(sends, 210);
}

TEST_F(LooperTest, APassThatTakesLongIsInterruptedForAcknowledgements) {
    callback->onSend([&](auto const&) { clock.jump(10); });
    peer.send(request(1));
    std::vector<Packet> packets;
    for (uint16_t id = 1; id <= 200; ++id)
        packets.push_back(packet(1, id));
    admitTogether(packets);
    EXPECT_EQ(left().size(), 200U);
    EXPECT_EQ(FarPeer::ackEntries(acksLeft().at(0)).at(0).hold, 500);
}

TEST_F(LooperTest, CleanupEmptiesAndResetsAndTheQueueGoesOn) {
    auto const pending = frame(2);
    auto const awaited = frame(1);
    queue->enqueue(1, true, awaited);
    peer.send(request(5));
    clock.settle();
    peer.acknowledge(99, 0);
    queue->enqueue(2, true, pending);
    queue->enqueue(2, true, frame(4));
    vesk->onChannelAvailable(true);
    EXPECT_EQ(queue->size(), 2);
    vesk->onChannelAvailable(false);

    EXPECT_EQ(log.count("VeskQueue", "cleanup."), 1U);
    EXPECT_EQ(queue->size(), 0);
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_EQ(queue->owedAcks(), 0U);
    EXPECT_EQ(queue->feedback().sentPackets(), 0U);
    EXPECT_EQ(queue->feedback().receivedPackets(), 0U);
    EXPECT_EQ(pending.use_count(), 1);  // its neighbour let go of it
    EXPECT_EQ(awaited.use_count(), 1);
    clock.advance(2000);
    EXPECT_EQ(callback->sentCount(), 1U);
    send(3);
    EXPECT_EQ(left(), (std::vector<int>{1, 3}));
}

}  // namespace
}  // namespace vesk
