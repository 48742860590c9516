#include "queue/QueueTest.h"

namespace vesk {
namespace {

class LooperTest : public QueueTest {};

TEST_F(LooperTest, EveryStepIsLoggedAndCounted) {
    auto const held = frame(8), sent = frame(9);
    play({{[&] { queue->enqueue(1, true, frame(7)); },
           "enqueue:7; priority:1|enqueuing packet:7|sendToChannel:7; serial:7;size:12|"
           "0 1 0 1 0 0 0"},
          {[&] { clock.advance(1000), admitTogether({packet(1, 6, true)}); },
           "enqueuing packet:6|sendToChannel:6; serial:6;size:12|0 2 0 2 0 0 0"},
          {[&] { clock.advance(1000); }, "send timeout:7|0 1 0 2 0 60000 1"},
          {[&] { clock.advance(999); }, "0 1 0 2 0 60000 1"},
          {[&] { clock.advance(1); }, "send timeout:6|0 0 0 2 0 60000 2"},
          {[&] { peer.acknowledge(7); },
           "receiveFromChannel:0,msgType:1,msg:170|0 0 0 2 0 60000 2"},
          {[&] { queue->enqueue(-2, true, held); },
           "enqueue:8; priority:-2|enqueuing packet:8|1 0 0 2 0 60000 2"},
          {[&] { queue->enqueue(1, true, sent); },
           "enqueue:9; priority:1|enqueuing packet:9|sendToChannel:9; serial:9;size:12|"
           "1 1 0 3 0 60000 2"},
          {[&] { peer.send(request(5)); },
           "receiveFromChannel:5,msgType:2,msg:5|1 1 1 3 1 60000 2"},
          {[&] { vesk->onChannelAvailable(true); }, "1 1 1 3 1 60000 2"},
          {[&] { vesk->onChannelAvailable(false); }, "cleanup.|0 0 0 0 0 0 0"},
          {[&] { EXPECT_EQ(held.use_count(), 2); }, "0 0 0 0 0 0 0"},
          {[&] { clock.advance(2000); }, "0 0 0 0 0 0 0"},
          {[&] { admit(1, 6); },
           "enqueuing packet:6|sendToChannel:6; serial:6;size:12|0 0 0 1 0 0 0"}});
    EXPECT_EQ(held.use_count() + sent.use_count(), 2);
}

TEST_F(LooperTest, PacketIsPendingAndAwaitedWhileItIsBeingSent) {
    Packet first = packet(1, 1, true), update = packet(1, 1);
    Packet const second = packet(1, 2);
    first->getFrame()->data = {8, 9};
    callback->onSend([&](auto const& bytes) {
        callback->onSend([&](auto const&) { EXPECT_EQ(state(), "1 1 0 1 0 0 0"); });
        EXPECT_EQ(bytes, (std::vector<uint8_t>{0x55, 2, 0, 2, 1, 2, 0, 0, 1, 0, 1, 0, 8, 9}));
        EXPECT_EQ(state(), "2 1 0 0 0 0 0");
        EXPECT_TRUE(queue->replacePacket(update));
        clock.jump(50);
    });
    play({{[&] {
               admitTogether({first, second});
           },
           "enqueuing packet:1|enqueuing packet:2|sendToChannel:1; serial:1;size:14|"
           "sendToChannel:2; serial:2;size:12|0 1 0 2 0 0 0"}});
    for (Packet const& either : {first, second})
        EXPECT_EQ(either->sendTime(), clock.now() - 50);  // as all of one pass
}

TEST_F(LooperTest, FullHistoryHoldsSendingUntilThereIsRoomOrTheFirstInLineGoes) {
    fill(1);
    send(300);  // supersedes
    EXPECT_FALSE(log.contains("VeskQueue", "history is oversize"));
    Packet const removed = packet(1, 1002, true);
    admitTogether({packet(1, 1001, true), removed, packet(1, 4), packet(1, 1003, true)});
    play({{[&] { queue->dequeuePacket(); }, "history is oversize|3 1000 0 1001 0 0 0"},
          {[&] { queue->removePacket(removed); },
           "sendToChannel:4; serial:4;size:12|history is oversize|1 1000 0 1002 0 0 0"},
          {[&] { peer.acknowledge(500); },  // nothing else wakes the looper
           "receiveFromChannel:0,msgType:1,msg:170|sendToChannel:1003; serial:1003;size:12|"
           "0 1000 0 1003 0 0 0"}});
    send(1004);
    clock.advance(2000);
    EXPECT_EQ(state(), "0 1 0 1004 0 60000 1000");
}

TEST_F(LooperTest, NothingIsOverdueOrEarlyWhenTheLooperRests) {
    std::tuple<int64_t, std::function<void()>, std::function<bool()>> const deadlines[] = {
            {2000, [&] { admit(2, 1); }, [&] { return queue->empty(); }},
            {2000, [&] { queue->enqueue(1, true, frame(2)); },
             [&] { return queue->awaitingAck() == 0; }},
            {500, [&] { receive(1, 2); }, [&] { return queue->owedAcks() == 0; }}};
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
    duringSend([&] { admit(2, 3), receive(1, 1), clock.jump(1LL << 32); });
    EXPECT_EQ(state(), "0 0 0 4 1 60000 1");
}

TEST_F(LooperTest, TimeThatASendTakesDoesNotPutOffItsExpiry) {
    for (int64_t const took : {2000, 1999}) {
        callback->onSend([&](auto const&) { clock.jump(took); });
        queue->enqueue(1, true, frame(7));
        rest();
        EXPECT_EQ(queue->awaitingAck(), took == 2000 ? 0U : 1U);
        clock.jump(2000 - took);
        EXPECT_TRUE(eventually([&] { return queue->awaitingAck() == 0; },
                               std::chrono::milliseconds(1500)));  // it would be put off by 2000
    }
}

TEST_F(LooperTest, AcknowledgementsAndExpiriesInterruptAPassWhenTheyAreDue) {
    for (bool const five : {false, true}) {
        for (uint16_t id = 1; id <= 1000; ++id)
            admit(2, id);
        callback->clear();
        int data = 0, atAck = 0, atExpiry = 0;
        callback->onSend([&](auto const& bytes) {
            if (data == 1) queue->enqueue(1, true, frame(7));
            if (data > 2 && atExpiry == 0 && queue->awaitingAck() == 0) atExpiry = data;
            clock.jump(4);
            bool const isAck = FarPeer::isAck(FarPeer::decode(bytes));
            if (isAck && atAck == 0) atAck = data;
            if (!isAck) ++data;
            bool const floods = data > 800 && data < 1001 && callback->sentCount() < 3000;
            if ((data == 1 && !isAck) || (five && floods)) receive(1, five ? 5 : 1);
        });
        clock.advance(2000);
        EXPECT_LE(atAck, five ? 1 : 127);
        EXPECT_LE(atExpiry, 700);
        EXPECT_EQ(data, 1001);  // they make progress, whatever is owed meanwhile
        EXPECT_EQ(callback->sentCount(), five ? 1203U : 1002U);
        callback->onSend(nullptr);
    }
}

}  // namespace
}  // namespace vesk
