#include "queue/QueueTest.h"

namespace vesk {
namespace {

TEST_F(QueueTest, EveryStepIsLoggedAndCounted) {
    auto const held = frame(8), sent = frame(9);
    Packet pending = packet(2, 4);
    play({{[&] { queue->enqueue(1, true, frame(7)); },
           "enqueue:7; priority:1|enqueuing packet:7|sendToChannel:7; serial:7;size:12|"
           "0 1 0 1 0 0 0, 0 0 0 0"},
          {[&] { clock.advance(2000); }, "send timeout:7|0 0 0 1 0 60000 1, 0 1 0 0"},
          {[&] { queue->enqueue(-2, true, held); },
           "enqueue:8; priority:-2|enqueuing packet:8|1 0 0 1 0 60000 1, 0 1 0 0"},
          {[&] { queue->enqueue(1, true, sent); },
           "enqueue:9; priority:1|enqueuing packet:9|sendToChannel:9; serial:9;size:12|"
           "1 1 0 2 0 60000 1, 0 1 0 0"},
          {[&] { peer.send(request(5)); },
           "receiveFromChannel:5,msgType:2,msg:5|1 1 1 2 1 60000 1, 0 1 0 0"},
          {[&] { clock.jump(-10), queue->wake(); }, "1 1 1 2 1 60000 1, 0 1 0 0"},
          {[&] { vesk->onChannelAvailable(true); }, "1 1 1 2 1 60000 1, 0 1 0 0"},
          {[&] { vesk->onChannelAvailable(false); }, "cleanup.|0 0 0 0 0 0 0, 0 1 0 0"},
          {[&] { queue->push(pending), queue->push(pending); },
           "enqueuing packet:4|enqueuing packet:4|enqueue fail.|1 0 0 0 0 0 0, 0 1 0 1"}});
    EXPECT_EQ(held.use_count() + sent.use_count(), 2);
    fill(2);
    play({{[&] { queue->enqueue(-1, true, frame(1)); },
           "enqueue:1; priority:-1|oversize.1000|1000 0 0 0 0 0 0, 0 1 0 3"},
          {[&] { admitTogether({packet(2, 3)}); }, "enqueuing packet:3|1001 0 0 0 0 0 0, 0 1 0 3"},
          {[&] { queue->push(pending); }, "oversize.1001|1001 0 0 0 0 0 0, 0 1 0 4"}});
}

TEST_F(QueueTest, APassSendsAtTheTimeThatItHasWhenWhatExpiredIsGone) {
    auto const slow = [&](VeskFrame* last) { delete last, clock.jump(700); };
    queue->enqueue(1, true, std::shared_ptr<VeskFrame>(new VeskFrame, slow));
    clock.settle();
    clock.jump(2000);
    Packet behind = packet(1, 2);
    admitTogether({behind});
    EXPECT_EQ(behind->sendTime(), clock.now());
    queue->enqueue(1, false, frame(3));
    clock.settle();
    queue->enqueue(2, true, frame(4));  // in the packet of the last one
    Packet const unsent = queue->dequeuePacket();
    EXPECT_EQ(std::tuple(unsent->sendTime(), unsent->enqueueOrder()), std::tuple(0U, 0U));
}

TEST_F(QueueTest, PacketIsPendingAwaitedAndReplacedWhileItIsBeingSent) {
    Packet first = packet(1, 1, true), second = packet(1, 2), update = packet(5, 1, true);
    first->getFrame()->data = {1, 2, 3};
    update->getFrame()->data = {9, 9};
    callback->onSend([&](auto const&) {
        callback->onSend([&](auto const&) { EXPECT_EQ(state(), "1 1 0 1 0 0 0, 0 0 0 0"); });
        EXPECT_EQ(state(), "2 1 0 0 0 0 0, 0 0 0 0");
        for (Packet with : {update, first}) {
            EXPECT_TRUE(queue->replacePacket(with));
            EXPECT_EQ(first->getFrame()->dataSize, with == update ? 3 : 2);  // of the data before
        }
        clock.jump(50);
    });
    admitTogether({first, second});
    EXPECT_EQ(second->sendTime(), clock.now() - 50);  // when the pass began
}

TEST_F(QueueTest, FullHistoryHoldsSendingUntilThereIsRoomOrTheFirstInLineGoes) {
    Packet old = packet(1, 1001, true), unrecorded = packet(1, 1002);
    auto const record = [&](Packet& packet) {
        std::lock_guard<std::mutex> const lock(queue->mutex());
        return queue->addToHistoryList(packet);
    };
    old->updateSendTime(clock.now() - 1999);
    EXPECT_TRUE(record(old));
    play({{[&] { clock.settle(); }, "0 1 0 0 0 0 0, 0 0 0 0"},
          {[&] { clock.advance(1); }, "send timeout:1001|0 0 0 0 0 60000 1, 0 1 0 0"},
          {[&] { vesk->onChannelAvailable(false); }, "cleanup.|0 0 0 0 0 0 0, 0 1 0 0"}});
    fill(1);
    EXPECT_TRUE(!record(old) && record(unrecorded));
    Packet const removed = packet(1, 1002, true);
    admitTogether({packet(1, 300, true), packet(1, 1001, true), removed, packet(1, 1003, true)});
    play({{[&] { queue->dequeuePacket(); }, "history is oversize|2 1000 0 1001 0 0 0, 0 1 1 0"},
          {[&] { queue->removePacket(removed); },
           "history is oversize|1 1000 0 1001 0 0 0, 0 1 1 0"},
          {[&] { peer.acknowledge(500); },  // nothing else wakes the looper
           "receiveFromChannel:0,msgType:1,msg:170|sendToChannel:1003; serial:1003;size:12|"
           "0 1000 0 1002 0 0 0, 1 1 1 0"}});
}

TEST_F(QueueTest, AgeBeyond32BitsIsNotTakenForAShortOne) {
    auto const begin = [&] { admit(2, 3), receive(1, 1); };
    send(1);
    duringSend([&] { begin(), clock.jump(1LL << 32); });
    EXPECT_EQ(state(), "0 0 0 4 1 60000 1, 0 1 0 0");
    receive(1, 1);
    duringSend([&] { clock.jump(1LL << 32); });  // nothing else wakes the looper
    EXPECT_EQ(state(), "0 0 0 6 2 60000 1, 0 1 0 0");
}

TEST_F(QueueTest, SendsWhatIsDueAndSaysWhenTheRestIs) {
    uint64_t const HIGH = 1ULL << 32;
    std::tuple<int, bool, uint64_t, uint64_t> const packets[] = {{1, false, 9999, 9999},
                                                                 {1, true, 9999, 2000},
                                                                 {1, true, 1999, 1999},
                                                                 {2, false, HIGH + 5, 1500},
                                                                 {0, true, 1499, 1499}};
    for (auto const& [priority, needAck, before, after] : packets) {
        Packet fresh = packet(priority, 1, needAck);
        {
            std::lock_guard<std::mutex> const lock(queue->mutex());
            queue->enqueuePacket(fresh);  // which wakes nobody
        }
        clock.jump(500);
        unsigned long long wait = before;
        queue->sendPacketToNetwork(wait);
        EXPECT_EQ(wait, after) << priority << needAck << before;
        EXPECT_EQ(fresh->sendTime(), priority == 1 ? clock.now() : 0);
        queue->cleanup();
    }
}

TEST_F(QueueTest, APassGoesInOrderOfPriorityAndIsMadeWhenItIsAskedForAlone) {
    auto const slow = [&](VeskFrame* last) { delete last, clock.jump(700); };
    queue->enqueue(1, true, std::shared_ptr<VeskFrame>(new VeskFrame, slow));
    clock.settle();
    admit(3, 3);
    clock.jump(100);
    admit(2, 2);
    rest();
    clock.advance(1900);  // where the first expires, and all are due when it is gone
    EXPECT_EQ(left(), (std::vector<int>{0, 2, 3}));

    admit(2, 4);
    Packet other = admit(2, 5);
    rest();
    clock.jump(2000);
    queue->removePacket(other);  // has held up nothing
    rest();
    EXPECT_EQ(left().size(), 3U);
    vesk->onChannelAvailable(false);

    for (bool const another : {false, true}) {
        Packet sent = packet(1, 6), next = packet(1, 7);
        callback->onSend([&](auto const&) {
            callback->onSend(nullptr);
            if (!another) return void(queue->removePacket(sent));
            std::lock_guard<std::mutex> const lock(queue->mutex());
            queue->enqueuePacket(next);
        });
        std::unique_lock<std::mutex> lock(queue->mutex());
        queue->enqueuePacket(sent);
        lock.unlock();
        unsigned long long wait = 9999;
        queue->sendPacketToNetwork(wait);
        EXPECT_EQ(wait, another ? 0U : 9999U);
    }
}

TEST_F(QueueTest, WhatFallsDueInASendComesBeforeThePacketBehindIt) {
    // Ms that the first of two sends takes, and whether the second is admitted in it.
    for (auto const& [millis, late] : {std::pair(499, false), {500, false}, {100, true}}) {
        send(1);
        clock.jump(2000 - millis);
        std::vector<Packet> packets{packet(1, 2), packet(1, 3)};
        if (late) packets.pop_back();
        callback->onSend([&, wait = millis, more = late](auto const&) {
            callback->onSend(nullptr), clock.jump(wait);
            if (more) admit(1, 3);
        });
        admitTogether(packets);
        bool const last = log.messages("VeskQueue").back() == "send timeout:1";
        EXPECT_EQ(last, millis == 499) << "a pass may take so long";
    }
    // Acknowledgements fall due in the sends of 6, of 5 and of the first two that acknowledge.
    std::vector<int> sent;
    admit(2, 4);
    callback->onSend([&](auto const& bytes) {
        sent.push_back(FarPeer::decode(bytes).msgId);
        if (sent.size() == 1) admit(1, 5), receive(1, 5), clock.jump(2000);
        if (sent.size() == 3 || sent.size() == 4) receive(1, 5);
    });
    send(6);
    EXPECT_EQ(sent, (std::vector<int>{6, 5, 170, 170, 4, 170}));
    callback->onSend([&](auto const&) { clock.jump(500); });
    admitTogether({packet(1, 7), packet(1, 8)});
    EXPECT_EQ(left().back(), 8);
    callback->onSend([&](auto const& bytes) {
        sent.push_back(FarPeer::decode(bytes).msgId);
        clock.jump(100);
    });
    admit(2, 9);
    clock.jump(1600);
    receive(1, 1);  // which falls due in the send of 10
    rest();
    clock.jump(400);
    send(10);
    EXPECT_EQ(std::vector<int>(sent.end() - 3, sent.end()), (std::vector<int>{10, 170, 9}));
}

}  // namespace
}  // namespace vesk
