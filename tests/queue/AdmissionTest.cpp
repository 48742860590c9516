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
    } const falling[] = {{-5, false, 9}, {0, false, 9}, {1, true, 1},  {1, true, 2},
                         {1, false, 1},  {2, true, 1},  {2, false, 0}, {2, false, UINT64_MAX}};
    std::vector<Packet> packets(1);
    for (auto const& row : falling) {
        packets.push_back(new VeskQueue::QueuedPacket(row.priority, row.needAck, nullptr));
        packets.back()->updateEnqueueTime(row.enqueued);
    }
    for (size_t i = 1; i < packets.size(); ++i) {
        for (size_t j = 0; j < packets.size(); ++j) {
            EXPECT_EQ(packets[i]->less(packets[j]), j != 0 && i > j) << i << ' ' << j;
        }
    }
}

TEST_F(AdmissionTest, CopyOfAPendingPacketIsNotPending) {
    Packet first = packet(2, 1, true);
    queue->push(first);
    admit(2, 2);
    clock.jump(700);
    Packet copy = new VeskQueue::QueuedPacket(*first);
    EXPECT_EQ(copy->enqueueTime(), ShiftedClock::START);
    EXPECT_EQ(copy->getFrame(), first->getFrame());
    EXPECT_TRUE(copy->needRetransmission());
    queue->push(first);  // is pending already
    EXPECT_EQ(queue->size(), 2);
    queue->push(copy);
    EXPECT_EQ(drain(), (std::vector<int>{1, 2, 1}));
}

TEST_F(AdmissionTest, ChainIsInPriorityOrderAndFairAmongEquals) {
    uint16_t msgId = 0;
    for (int const priority : {5, 3, 5, 0, 3, -5, 4, 0})
        admit(priority, ++msgId);
    EXPECT_EQ(queue->size(), 8);
    EXPECT_EQ(drain(), (std::vector<int>{6, 4, 8, 2, 5, 7, 1, 3}));
}

TEST_F(AdmissionTest, PriorityOneLeavesAtOnceAndTheOthersInOrderAfter2000ms) {
    uint16_t msgId = 0;
    for (int const priority : {5, 3, 5, 1, 3, 0})
        queue->enqueue(priority, false, frame(++msgId));
    clock.settle();
    EXPECT_EQ(left(), std::vector<int>{4});
    clock.advance(2000);
    EXPECT_EQ(left(), (std::vector<int>{4, 6, 2, 5, 1, 3}));
    EXPECT_TRUE(log.contains("VeskQueue", "enqueue:4; priority:1"));
    EXPECT_TRUE(log.contains("VeskQueue", "enqueuing packet:4"));
}

TEST_F(AdmissionTest, AdmissionThatFinds1000PendingIsDropped) {
    for (uint16_t id = 1; id <= 1000; ++id)
        admit(2, id);
    EXPECT_EQ(queue->size(), 1000);
    queue->enqueue(-1, true, frame(1001));
    EXPECT_EQ(queue->size(), 1000);
    EXPECT_EQ(log.count("VeskQueue", "oversize.1000"), 1U);
    EXPECT_FALSE(log.contains("VeskQueue", "enqueuing packet:1001"));

    peer.send(request(1));  // the acknowledgement is not subject to the bound
    clock.advance(500);
    EXPECT_EQ(acksLeft().size(), 1U);
}

TEST_F(AdmissionTest, RemovalReturnsTheFollowerAndJoinsTheNeighbours) {
    std::vector<int> const rest[] = {{2, 3, 4}, {1, 3, 4}, {1, 2, 4}};
    for (size_t i = 0; i < 3; ++i) {
        Packet const chain[] = {admit(2, 1), admit(2, 2), admit(2, 3), nullptr};
        EXPECT_EQ(queue->removePacket(chain[i]), chain[i + 1]);
        EXPECT_EQ(queue->removePacket(chain[i]), nullptr);  // not pending any more
        EXPECT_EQ(queue->size(), 2);
        admit(2, 4);
        EXPECT_EQ(drain(), rest[i]);
    }
}

TEST_F(AdmissionTest, RemovalOfWhatCleanupUnlinkedTouchesNothingNew) {
    Packet const alone = admit(2, 1);
    queue->cleanup();
    admit(2, 2);
    admit(2, 3);
    EXPECT_EQ(queue->removePacket(alone), nullptr);
    EXPECT_EQ(queue->size(), 2);
    EXPECT_EQ(drain(), (std::vector<int>{2, 3}));
}

TEST_F(AdmissionTest, EndOfAnEmptiedChainIsForgottenAtTheNextAdmission) {
    std::function<void(Packet const&)> const empties[] = {
            [&](Packet const&) { queue->dequeuePacket(); },
            [&](Packet const&) { queue->cleanup(); },
            [&](Packet const& alone) { queue->removePacket(alone); }};
    for (auto const& empty : empties) {
        SCOPED_TRACE(&empty - empties);
        empty(admit(9, 1));
        admit(3, 2);
        admit(3, 3);
        admit(2, 4);
        EXPECT_EQ(drain(), (std::vector<int>{4, 2, 3}));
    }
}

TEST_F(AdmissionTest, ReplacementChangesTheDataOfTheFirstMatchAlone) {
    admit(2, 8);
    Packet nearer = admit(2, 7);
    Packet const farther = admit(2, 7);
    nearer->getFrame()->data = {1, 2, 3};
    Packet update = packet(5, 7);
    update->getFrame()->serialNumber = 99;
    update->getFrame()->data = {9, 9};
    clock.jump(100);
    EXPECT_TRUE(queue->replacePacket(update));
    EXPECT_EQ(nearer->getFrame()->data, (std::vector<uint8_t>{9, 9}));
    EXPECT_EQ(nearer->getFrame()->dataSize, 3);  // of the data replaced
    EXPECT_EQ(nearer->getFrame()->serialNumber, 7);
    EXPECT_EQ(nearer->enqueueTime(), ShiftedClock::START);
    EXPECT_TRUE(farther->getFrame()->data.empty());

    EXPECT_TRUE(queue->replacePacket(nearer));  // by itself
    EXPECT_EQ(nearer->getFrame()->data, (std::vector<uint8_t>{9, 9}));
    EXPECT_EQ(nearer->getFrame()->dataSize, 2);
    EXPECT_EQ(drain(), (std::vector<int>{8, 7, 7}));
}

TEST_F(AdmissionTest, ReplacementWantsAllFiveFieldsEqual) {
    admit(2, 7);
    Packet updates[] = {packet(2, 7), packet(2, 7), packet(2, 8), packet(2, 7), packet(2, 7)};
    ++updates[0]->getFrame()->topicId;
    ++updates[1]->getFrame()->businessId;
    ++updates[3]->getFrame()->msgType;
    ++updates[4]->getFrame()->reply;
    for (Packet& update : updates)
        EXPECT_FALSE(queue->replacePacket(update)) << &update - updates;
    EXPECT_EQ(queue->size(), 1);
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
