#include "support/VeskTest.h"

namespace vesk {
namespace {

class AdmissionTest : public VeskTest {
protected:
    Packet admit(int priority, uint16_t msgId) {
        Packet made = packet(priority, msgId);
        queue->push(made);
        return made;
    }

    /** The msgIds pending, in order; they are not pending any more then. */
    std::vector<int> drain() {
        std::vector<int> ids;
        while (Packet const first = queue->dequeuePacket())
            ids.push_back(first->getFrame()->msgId);
        EXPECT_TRUE(queue->empty());
        return ids;
    }
};

TEST_F(AdmissionTest, PriorityThenAcknowledgementThenAgeDecideUrgency) {
    struct {
        int priority;
        bool needAck;
        uint64_t enqueued;
    } const falling[] = {{-5, false, 9}, {1, true, 1},  {1, true, 2},          {1, false, 1},
                         {2, true, 1},   {2, false, 0}, {2, false, UINT64_MAX}};
    std::vector<Packet> packets(1);
    for (auto const& row : falling) {
        packets.push_back(new VeskQueue::QueuedPacket(row.priority, row.needAck, nullptr));
        packets.back()->updateEnqueueTime(row.enqueued);
    }
    for (size_t i = 1; i < packets.size(); ++i) {
        for (size_t j = 0; j < packets.size(); ++j)
            EXPECT_EQ(packets[i]->less(packets[j]), j != 0 && i > j) << i << ' ' << j;
    }
}

TEST_F(AdmissionTest, AdmissionThatFinds1000PendingIsDropped) {
    for (uint16_t id = 1; id <= 1001; ++id)
        admit(2, id);
    EXPECT_EQ(queue->size(), 1000);
    EXPECT_EQ(log.count("VeskQueue", "oversize.1000"), 1U);
}

TEST_F(AdmissionTest, RemovalJoinsTheNeighboursAndACopyIsNotPending) {
    std::vector<int> const rest[] = {{2, 3, 1}, {1, 3, 2}, {1, 2, 3}};
    for (size_t i = 0; i < 3; ++i) {
        Packet chain[] = {admit(2, 1), admit(2, 2), admit(2, 3), nullptr};
        clock.jump(1);
        Packet copy = new VeskQueue::QueuedPacket(*chain[i]);
        EXPECT_EQ(copy->enqueueTime(), clock.now() - 1);
        queue->push(chain[i]);  // is pending already
        EXPECT_EQ(queue->removePacket(chain[i]), chain[i + 1]);
        EXPECT_EQ(queue->removePacket(chain[i]), nullptr);  // not pending any more
        queue->push(copy);
        EXPECT_EQ(copy->enqueueTime(), clock.now());
        EXPECT_EQ(queue->size(), 3);
        EXPECT_EQ(drain(), rest[i]);
    }
    Packet const pair[] = {admit(2, 1), admit(2, 2)};
    queue->dequeuePacket();
    queue->removePacket(pair[1]);  // has no neighbours any more
    EXPECT_EQ(drain(), std::vector<int>());
}

TEST_F(AdmissionTest, PacketsTakenOutUnsentAreLetGoOf) {
    std::weak_ptr<VeskFrame> const first = admit(2, 1)->getFrame();
    for (uint16_t id = 2; id <= 4; ++id) {
        queue->dequeuePacket();
        admit(2, id);
    }
    rest();  // a pass may hold what it is looking at
    EXPECT_TRUE(first.expired());
    drain();
}

TEST_F(AdmissionTest, ReplacementChangesTheDataOfTheFirstMatchAlone) {
    Packet nearer = admit(2, 7);
    Packet const farther = admit(2, 7);
    nearer->getFrame()->data = {1, 2, 3};
    Packet others[] = {packet(2, 8), packet(2, 7), packet(2, 7)};
    others[1]->getFrame()->msgType = 3;
    others[2]->getFrame()->reply = 1;
    for (Packet& other : others)
        EXPECT_FALSE(queue->replacePacket(other)) << &other - others;
    Packet update = packet(5, 7);
    update->getFrame()->data = {9, 9};
    update->getFrame()->serialNumber = 8;
    EXPECT_TRUE(queue->replacePacket(update));
    EXPECT_EQ(nearer->getFrame()->serialNumber, 7);
    EXPECT_EQ(nearer->getFrame()->data, (std::vector<uint8_t>{9, 9}));
    EXPECT_EQ(nearer->getFrame()->dataSize, 3);  // of the data replaced
    EXPECT_TRUE(farther->getFrame()->data.empty());
    EXPECT_TRUE(queue->replacePacket(nearer));  // by itself
    EXPECT_EQ(nearer->getFrame()->data.size(), 2U);
    drain();
}

TEST_F(AdmissionTest, NullIsIgnoredEverywhere) {
    Packet packets[] = {nullptr, new VeskQueue::QueuedPacket(1, true, nullptr)};
    for (Packet& hollow : packets) {
        queue->push(hollow);
        EXPECT_FALSE(queue->replacePacket(hollow));
        EXPECT_EQ(queue->removePacket(hollow), nullptr);
    }
    queue->enqueue(1, true, nullptr);
    queue->receiveFromChannel(nullptr);
    queue->receiveAckMessage(nullptr);
    EXPECT_TRUE(queue->empty());
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace vesk
