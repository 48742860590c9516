#include "queue/QueueTest.h"

#include <climits>
#include <set>
#include <thread>

namespace vesk {
namespace {

class AdmissionTest : public QueueTest {};

TEST_F(AdmissionTest, CopyHasAllButTheSendTime) {
    Packet const original = packet(INT_MIN, 7, true);
    EXPECT_EQ(original->enqueueTime(), clock.now());
    original->updateEnqueueTime(UINT64_MAX - 1);
    original->updateSendTime(UINT64_MAX);
    EXPECT_EQ(original->sendTime(), UINT64_MAX);
    Packet const copy = new VeskQueue::QueuedPacket(*original);
    EXPECT_EQ(std::tuple(copy->priority(), copy->needRetransmission(), copy->getFrame(),
                         copy->enqueueTime(), copy->enqueueOrder(), copy->sendTime()),
              std::tuple(INT_MIN, true, original->getFrame(), UINT64_MAX - 1, 0U, 0U));
}

TEST_F(AdmissionTest, PriorityThenAcknowledgementThenAgeDecideUrgency) {
    std::tuple<int, bool, uint64_t> const falling[] = {
            {INT_MIN, false, 9}, {-5, false, 9},        {1, true, 1},
            {1, true, 2},        {1, true, 1ULL << 32}, {1, false, 1},
            {2, true, 1},        {2, false, 0},         {2, false, UINT64_MAX}};
    std::vector<Packet> packets(1);
    for (auto const& [priority, needAck, enqueued] : falling) {
        packets.push_back(new VeskQueue::QueuedPacket(priority, needAck, nullptr));
        packets.back()->updateEnqueueTime(enqueued);
    }
    for (size_t i = 1; i < packets.size(); ++i) {
        for (size_t j = 0; j < packets.size(); ++j)
            EXPECT_EQ(packets[i]->less(packets[j]), j != 0 && i > j) << i << ' ' << j;
    }
}

TEST_F(AdmissionTest, PushThatFinds1000PendingIsDropped) {
    fill(2);
    queue->dequeuePacket();
    play({{[&] { admit(2, 1000); }, "enqueuing packet:1000|1000 0 0 0 0 0 0"},
          {[&] { queue->enqueue(-1, true, frame(1)); },
           "enqueue:1; priority:-1|oversize.1000|1000 0 0 0 0 0 0"},
          {[&] { admitTogether({packet(2, 1)}); }, "enqueuing packet:1|1001 0 0 0 0 0 0"},
          {[&] { admit(2, 1); }, "oversize.1001|1001 0 0 0 0 0 0"}});
}

TEST_F(AdmissionTest, PacketTakenOutIsNotPendingAndKeepsNoNeighbour) {
    for (int i = 0; i < 3; ++i) {
        Packet chain[] = {admit(2, 0), admit(2, 1), admit(2, 2), nullptr};
        clock.jump(1);
        Packet copy = new VeskQueue::QueuedPacket(*chain[i]);
        play({{[&] { queue->push(chain[i]); },
               "enqueuing packet:" + std::to_string(i) + "|enqueue fail.|3 0 0 0 0 0 0"}});
        EXPECT_EQ(chain[i]->enqueueTime(), clock.now() - 1);
        EXPECT_EQ(queue->removePacket(copy), nullptr);
        EXPECT_EQ(queue->removePacket(chain[i]), chain[i + 1]);
        EXPECT_EQ(queue->removePacket(chain[i]), nullptr);
        queue->push(copy);
        EXPECT_EQ(copy->enqueueTime(), clock.now());
        for (int j = 0; j < 3; ++j)
            EXPECT_EQ(j == i ? chain[j] : queue->dequeuePacket(), chain[j]);
        EXPECT_EQ(queue->dequeuePacket(), copy);
        EXPECT_EQ(queue->dequeuePacket(), nullptr);
        rest();  // a pass may hold what it is looking at
        for (int j = 0; j < 3; ++j)
            EXPECT_EQ(chain[j]->getStrongCount(), 1) << i << j;
    }
}

TEST_F(AdmissionTest, ReplacementChangesTheDataOfTheFirstThatAgreesInAllFiveFields) {
    Packet nearer = admit(2, 7);
    Packet const farther = admit(2, 7);
    nearer->getFrame()->data = {1, 2, 3};
    for (int field = 0; field < 5; ++field) {
        Packet other = packet(2, 7, true);
        VeskFrame& frame = *other->getFrame();
        frame.topicId ^= field == 0;
        frame.businessId ^= field == 1;
        frame.msgId ^= field == 2;
        frame.msgType ^= field == 3;
        frame.reply ^= field == 4;
        EXPECT_FALSE(queue->replacePacket(other)) << field;
    }
    clock.jump(5);
    Packet update = packet(5, 7, true);
    update->getFrame()->data = {9, 9};
    update->getFrame()->serialNumber = 8;
    for (Packet with : {update, nearer}) {  // the second is the pending one itself
        EXPECT_TRUE(queue->replacePacket(with));
        EXPECT_EQ(nearer->getFrame()->dataSize, with == update ? 3 : 2);  // of the data before
        EXPECT_EQ(nearer->getFrame()->data, (std::vector<uint8_t>{9, 9}));
    }
    EXPECT_EQ(nearer->getFrame()->serialNumber, 7);
    EXPECT_EQ(nearer->enqueueTime(), clock.now() - 5);
    EXPECT_TRUE(farther->getFrame()->data.empty());
    EXPECT_EQ(queue->removePacket(nearer), farther);
}

TEST_F(AdmissionTest, NullIsIgnoredEverywhere) {
    for (Packet hollow : {Packet(), Packet(new VeskQueue::QueuedPacket(1, true, nullptr))}) {
        queue->push(hollow);
        EXPECT_EQ(queue->removePacket(hollow), nullptr);
        EXPECT_FALSE(queue->replacePacket(hollow));
        std::lock_guard<std::mutex> const lock(queue->mutex());
        EXPECT_FALSE(queue->enqueuePacket(hollow) || !queue->addToHistoryList(hollow));
    }
    queue->enqueue(1, true, nullptr);
    queue->receiveFromChannel(nullptr);
    queue->receiveAckMessage(nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(state(), "0 0 0 0 0 0 0");
}

TEST_F(AdmissionTest, PacketsMayMoveBetweenQueuesThatSend) {
    VeskQueue one, two;
    auto const move = [&](VeskQueue& from, VeskQueue& to, int first) {
        for (int id = first; id < first + 20000; ++id) {
            Packet fresh = packet(1, static_cast<uint16_t>(id));
            ASSERT_TRUE(eventually([&] { return one.size() < 900 && two.size() < 900; }));
            from.push(fresh);
            Packet moved = from.dequeuePacket();
            to.push(moved);
            if (id % 3 == 0) from.removePacket(fresh), from.push(fresh);
        }
    };
    std::thread there([&] { move(one, two, 0); }), back([&] { move(two, one, 30000); });
    there.join();
    back.join();
    EXPECT_TRUE(eventually([&] { return one.idle() && two.idle() && one.empty() && two.empty(); }));
    auto const ids = left();
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), 40000U);
}

TEST_F(AdmissionTest, PacketTakenOutInItsOwnSendMayBeAdmittedAgain) {
    Packet sent = packet(1, 1);
    std::function<void()> const ways[] = {[&] { EXPECT_EQ(queue->dequeuePacket(), sent); },
                                          [&] { queue->removePacket(sent); },
                                          [&] { queue->cleanup(); }};
    for (auto const& takeOut : ways) {
        callback->clear();
        callback->onSend([&](auto const&) {
            callback->onSend(nullptr), takeOut(), queue->push(sent), admit(1, 2);
        });
        admitTogether({sent, packet(1, 3)});
        EXPECT_EQ(left(), &takeOut - ways == 2 ? (std::vector<int>{1, 1, 2})
                                               : (std::vector<int>{1, 3, 1, 2}));
        EXPECT_TRUE(queue->empty());
    }
    callback->clear();
    callback->onSend([&](auto const&) { callback->onSend(nullptr), queue->removePacket(sent); });
    admitTogether({sent, packet(1, 3)});  // which nothing else wakes the looper for
    EXPECT_EQ(left(), (std::vector<int>{1, 3}));
}

TEST_F(AdmissionTest, PacketBelongsToTheQueueThatHoldsIt) {
    VeskQueue other;
    Packet chain[] = {admit(2, 1), admit(2, 2), admit(2, 3)};
    for (Packet& held : chain) {
        EXPECT_EQ(other.removePacket(held), nullptr);
        other.push(held);
        EXPECT_EQ(log.messages("VeskQueue").back(), "enqueue fail.");
        other.enqueue(2, false, frame(4));
        EXPECT_EQ(other.dequeuePacket()->getFrame()->msgId, 4);
    }
    EXPECT_EQ(queue->removePacket(chain[1]), chain[2]);
    other.push(chain[1]);
    EXPECT_EQ(other.dequeuePacket(), chain[1]);
    clock.advance(2000);
    EXPECT_EQ(left(), (std::vector<int>{1, 3}));
}

}  // namespace
}  // namespace vesk
