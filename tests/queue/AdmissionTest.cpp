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

TEST_F(AdmissionTest, ChainIsInPriorityOrderAndFairAmongEquals) {
    uint16_t msgId = 0;
    for (int const priority : {5, 3, 5, 0, 3, -5, 4, 0})
        admit(priority, ++msgId);
    EXPECT_EQ(queue->size(), 8);
    EXPECT_EQ(drain(), (std::vector<int>{6, 4, 8, 2, 5, 7, 1, 3}));
}

TEST_F(AdmissionTest, PriorityOneLeavesAtOnceAndTheOthersInOrderAfter2000ms) {
    uint16_t msgId = 0;
    for (int const priority : {5, 3, 5, 1, 3})
        queue->enqueue(priority, false, frame(++msgId));
    clock.settle();
    EXPECT_EQ(left(), std::vector<int>{4});
    clock.advance(2000);
    EXPECT_EQ(left(), (std::vector<int>{4, 2, 5, 1, 3}));
    EXPECT_TRUE(log.contains("VeskQueue", "enqueue:4; priority:1"));
    EXPECT_TRUE(log.contains("VeskQueue", "enqueuing packet:4"));
}

TEST_F(AdmissionTest, AdmissionThatFinds1000PendingIsDropped) {
    for (uint16_t id = 1; id <= 1000; ++id)
        admit(2, id);
    EXPECT_EQ(queue->size(), 1000);
    EXPECT_FALSE(log.contains("VeskQueue", "oversize.999"));
    queue->enqueue(-1, true, frame(1001));
    EXPECT_EQ(queue->size(), 1000);
    EXPECT_EQ(log.count("VeskQueue", "oversize.1000"), 1U);
    EXPECT_FALSE(log.contains("VeskQueue", "enqueuing packet:1001"));

    peer.send(request(1));  // the acknowledgement is not subject to the bound
    clock.advance(500);
    EXPECT_EQ(acksLeft().size(), 1U);
    EXPECT_EQ(queue->size(), 1000);
}

TEST_F(AdmissionTest, HoldBackCountsFromAdmission) {
    Packet held = packet(2, 1);
    clock.advance(1500);
    queue->push(held);
    clock.advance(1999);
    EXPECT_EQ(callback->sentCount(), 0U);
    clock.advance(1);
    EXPECT_EQ(left(), std::vector<int>{1});
}

TEST_F(AdmissionTest, RemovalReturnsTheFollowerAndJoinsTheNeighbours) {
    struct {
        size_t removed;
        std::vector<int> rest;
    } const rows[] = {{0, {2, 3}}, {1, {1, 3}}, {2, {1, 2}}};
    for (auto const& row : rows) {
        Packet const chain[] = {admit(2, 1), admit(2, 2), admit(2, 3)};
        Packet const expected = row.removed == 2 ? Packet() : chain[row.removed + 1];
        EXPECT_EQ(queue->removePacket(chain[row.removed]), expected);
        EXPECT_EQ(queue->removePacket(chain[row.removed]), Packet());  // not pending any more
        EXPECT_EQ(queue->size(), 2);
        admit(2, 4);
        std::vector<int> rest = row.rest;
        rest.push_back(4);
        EXPECT_EQ(drain(), rest);
    }
}

TEST_F(AdmissionTest, RemovalOfWhatCleanupUnlinkedTouchesNothingNew) {
    Packet const alone = admit(2, 1);
    queue->cleanup();
    Packet const next = admit(2, 2);
    admit(2, 3);
    EXPECT_EQ(queue->removePacket(alone), Packet());
    EXPECT_EQ(queue->size(), 2);
    EXPECT_EQ(drain(), (std::vector<int>{2, 3}));
}

TEST_F(AdmissionTest, EndOfAnEmptiedChainIsForgottenAtTheNextAdmission) {
    auto const refill = [&](char const* how) {
        SCOPED_TRACE(how);
        admit(3, 2);
        admit(3, 3);
        admit(2, 4);
        EXPECT_EQ(drain(), (std::vector<int>{4, 2, 3}));
    };
    admit(9, 1);
    ASSERT_TRUE(queue->dequeuePacket());
    refill("dequeuePacket");
    admit(9, 1);
    queue->cleanup();
    refill("cleanup");
    queue->removePacket(admit(9, 1));
    refill("removePacket");
}

TEST_F(AdmissionTest, ReplacementChangesTheDataOfTheFirstMatchAlone) {
    Packet const other = admit(2, 8);
    Packet const nearer = admit(2, 7);
    Packet const farther = admit(2, 7);
    nearer->getFrame()->data = {1, 2, 3};
    farther->getFrame()->data = {4};
    Packet update = packet(5, 7);
    update->getFrame()->serialNumber = 99;
    update->getFrame()->data = {9, 9};
    clock.jump(100);
    EXPECT_TRUE(queue->replacePacket(update));

    EXPECT_EQ(nearer->getFrame()->data, (std::vector<uint8_t>{9, 9}));
    EXPECT_EQ(nearer->getFrame()->dataSize, 3);  // of the data replaced
    EXPECT_EQ(nearer->getFrame()->serialNumber, 7);
    EXPECT_EQ(nearer->enqueueTime(), ShiftedClock::START);
    EXPECT_EQ(farther->getFrame()->data, std::vector<uint8_t>{4});
    EXPECT_TRUE(other->getFrame()->data.empty());

    Packet same = nearer;
    EXPECT_TRUE(queue->replacePacket(same));
    EXPECT_EQ(nearer->getFrame()->data, (std::vector<uint8_t>{9, 9}));
    EXPECT_EQ(nearer->getFrame()->dataSize, 2);
    EXPECT_EQ(drain(), (std::vector<int>{8, 7, 7}));
}

TEST_F(AdmissionTest, ReplacementWantsAllFiveFieldsEqual) {
    admit(2, 7);
    using Change = void (*)(VeskFrame&);
    Change const changes[] = {
            [](VeskFrame& f) { ++f.topicId; }, [](VeskFrame& f) { ++f.businessId; },
            [](VeskFrame& f) { ++f.msgId; },   [](VeskFrame& f) { ++f.msgType; },
            [](VeskFrame& f) { ++f.reply; },
    };
    for (Change const& change : changes) {
        Packet update = packet(2, 7);
        change(*update->getFrame());
        EXPECT_FALSE(queue->replacePacket(update)) << &change - changes;
    }
    EXPECT_EQ(queue->size(), 1);
}

TEST_F(AdmissionTest, NullIsIgnoredEverywhere) {
    Packet none;
    Packet hollow = new VeskQueue::QueuedPacket(1, true, nullptr);
    queue->enqueue(1, true, nullptr);
    for (Packet* const packet : {&none, &hollow}) {
        queue->push(*packet);
        EXPECT_FALSE(queue->replacePacket(*packet));
        EXPECT_EQ(queue->removePacket(*packet), Packet());
    }
    queue->receiveFromChannel(nullptr);
    queue->receiveAckMessage(nullptr);
    clock.settle();
    EXPECT_TRUE(queue->empty());
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace vesk
