#include "queue/QueueTest.h"

namespace vesk {
namespace {

class LooperTest : public QueueTest {};

TEST_F(LooperTest, EveryStepIsLoggedAndCounted) {
    auto const pending = frame(8), sent = frame(9), last = frame(10);
    queue->enqueue(1, true, frame(7));
    EXPECT_EQ(told(),
              "enqueue:7; priority:1|enqueuing packet:7|"
              "sendToChannel:7; serial:7;size:12|0 1 0 1 0 0 0");
    clock.advance(1999);
    EXPECT_EQ(told(), "0 1 0 1 0 0 0");
    clock.advance(1);
    EXPECT_EQ(told(), "send timeout:7|0 0 0 1 0 60000 1");
    peer.acknowledge(7);
    EXPECT_EQ(told(), "receiveFromChannel:0,msgType:1,msg:170|0 0 0 1 0 60000 1");
    queue->enqueue(-2, true, pending);
    queue->enqueue(1, true, sent);
    clock.settle();
    queue->enqueue(1, false, last);
    rest();
    EXPECT_EQ(last.use_count(), 1);
    peer.send(request(5));
    vesk->onChannelAvailable(true);
    log.clear();
    EXPECT_EQ(told(), "1 1 1 3 1 60000 1");
    vesk->onChannelAvailable(false);
    EXPECT_EQ(told(), "cleanup.|0 0 0 0 0 0 0");
    clock.advance(2000);
    queue->enqueue(2, false, last);
    queue->dequeuePacket();
    log.clear();
    EXPECT_EQ(told(), "0 0 0 0 0 0 0");
    EXPECT_EQ(pending.use_count() + sent.use_count(), 2);
    send(7);
    EXPECT_EQ(state(), "0 1 0 1 0 0 0");
}

TEST_F(LooperTest, PacketIsPendingAndAwaitedWhileItIsBeingSent) {
    Packet const first = packet(1, 1, true), second = packet(1, 2);
    first->getFrame()->data = {8, 9};
    callback->onSend([&](auto const& bytes) {
        callback->onSend([&](auto const&) { EXPECT_EQ(state(), "1 1 0 1 0 0 0"); });
        EXPECT_EQ(bytes, (std::vector<uint8_t>{0x55, 2, 0, 2, 1, 2, 0, 0, 1, 0, 1, 0, 8, 9}));
        EXPECT_EQ(state(), "2 1 0 0 0 0 0");
        Packet update = packet(1, 1);
        EXPECT_TRUE(queue->replacePacket(update));
        clock.jump(50);
    });
    admitTogether({first, second});
    EXPECT_EQ(log.messages("VeskQueue").at(2), "sendToChannel:1; serial:1;size:14");
    EXPECT_EQ(first->sendTime(), clock.now() - 50);
    EXPECT_EQ(second->sendTime(), clock.now() - 50);  // as all of one pass
    peer.acknowledge(1, 20);
    EXPECT_EQ(state(), "0 0 0 2 0 30 0");
}

TEST_F(LooperTest, FullHistoryHoldsSendingUntilThereIsRoomOrTheFirstInLineGoes) {
    for (uint16_t id = 1; id <= 1000; ++id)
        queue->enqueue(1, true, frame(id));
    clock.settle();
    send(300);  // supersedes
    EXPECT_FALSE(log.contains("VeskQueue", "history is oversize"));
    Packet const removed = packet(1, 1002, true);
    log.clear();
    admitTogether({packet(1, 1001, true), removed, packet(1, 4), packet(1, 1003, true)});
    EXPECT_EQ(log.messages("VeskQueue").back(), "history is oversize");
    EXPECT_EQ(state(), "4 1000 0 1001 0 0 0");
    queue->dequeuePacket();
    rest();
    EXPECT_EQ(state(), "3 1000 0 1001 0 0 0");
    queue->removePacket(removed);
    rest();
    EXPECT_EQ(state(), "1 1000 0 1002 0 0 0");
    peer.acknowledge(500);  // nothing else wakes the looper
    queue->enqueue(1, true, frame(1004));
    rest();
    EXPECT_EQ(state(), "1 1000 0 1003 0 0 0");
    clock.advance(2000);
    EXPECT_EQ(state(), "0 1 0 1004 0 60000 1000");
}

TEST_F(LooperTest, PacketTakenAwayDuringItsSendDoesNotDetainTheNext) {
    for (bool const cleansUp : {false, true}) {
        callback->clear();
        Packet const first = packet(1, 1);
        callback->onSend([&](auto const&) {
            callback->onSend(nullptr);
            queue->removePacket(first);
            if (cleansUp) queue->cleanup(), queue->enqueue(1, false, frame(2));
        });
        admitTogether({first, packet(1, 2)});
        EXPECT_EQ(left(), (std::vector<int>{1, 2})) << cleansUp;
        EXPECT_TRUE(queue->empty());
    }
}

TEST_F(LooperTest, NothingIsOverdueOrEarlyWhenTheLooperRests) {
    struct {
        int64_t due;
        std::function<void()> start;
        std::function<bool()> done;
    } const deadlines[] = {
            {2000, [&] { admit(2, 1); }, [&] { return queue->empty(); }},
            {2000, [&] { queue->enqueue(1, true, frame(2)); },
             [&] { return queue->awaitingAck() == 0; }},
            {500, [&] { peer.send(request(1)); }, [&] { return queue->owedAcks() == 0; }}};
    for (int64_t const early : {30, 0}) {
        for (auto const& [due, start, done] : deadlines) {
            duringSend([&, begin = start] { clock.jump(5), begin(); });  // the pass is older
            clock.advance(static_cast<uint64_t>(due - 40));
            // Whatever takes time in a pass, or wakes the looper, puts off nothing.
            duringSend([&] { clock.jump(40 - early); });
            EXPECT_EQ(done(), early == 0) << due;
            clock.jump(early);
            EXPECT_TRUE(eventually(done)) << due;  // by itself
        }
    }
}

TEST_F(LooperTest, AgeBeyond32BitsIsNotTakenForAShortOne) {
    send(1);
    duringSend([&] {
        admit(2, 3);
        peer.send(request(1));
        clock.jump(1LL << 32);
    });
    EXPECT_EQ(state(), "0 0 0 4 1 60000 1");
}

TEST_F(LooperTest, TimeThatASendTakesDoesNotPutOffItsExpiry) {
    callback->onSend([&](auto const&) { clock.jump(1999); });
    send(7);
    clock.jump(1);
    EXPECT_TRUE(eventually([&] { return queue->awaitingAck() == 0; },
                           std::chrono::milliseconds(1500)));  // it would be put off by 2000
}

TEST_F(LooperTest, AcknowledgementsAndExpiriesGetTheirTurnUnderUnbrokenSending) {
    int sends = 0;
    callback->onSend([&](auto const&) {
        clock.jump(10);
        if (sends == 0) receive(1, 5);
        bool const done = queue->awaitingAck() == 0 && queue->owedAcks() == 0;
        if (!done && ++sends < 2000) queue->enqueue(1, false, frame(1));
    });
    send(7);
    EXPECT_TRUE(FarPeer::isAck(FarPeer::decode(callback->sent().at(2))));  // behind one pending
    EXPECT_EQ(log.count("VeskQueue", "send timeout:7"), 1U);
    EXPECT_LE(sends, 210);
}

TEST_F(LooperTest, AcknowledgementFrameTakesItsPlaceByPriority) {
    duringSend([&] {
        receive(1, 5);
        for (int const priority : {2, 1, 0})
            admit(priority, static_cast<uint16_t>(priority));
        clock.jump(2000);
    });
    EXPECT_EQ(left(), (std::vector<int>{999, 0, 1, 2}));
    EXPECT_TRUE(FarPeer::isAck(FarPeer::decode(callback->sent().at(3))));
}

}  // namespace
}  // namespace vesk
