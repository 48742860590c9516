#include "queue/QueueTest.h"

#include <climits>

namespace vesk {
namespace {

class AdmissionTest : public QueueTest {};

TEST_F(AdmissionTest, PacketTellsWhatItWasMadeOfAndACopyAllButItsSending) {
    Packet const original = packet(INT_MIN, 7, true);
    EXPECT_EQ(original->enqueueTime(), clock.now());
    original->updateEnqueueTime(UINT64_MAX - 1);
    original->updateSendTime(UINT64_MAX);
    Packet const copy = new VeskQueue::QueuedPacket(*original);
    for (Packet const& either : {original, copy}) {
        EXPECT_EQ(either->priority(), INT_MIN);
        EXPECT_TRUE(either->needRetransmission());
        EXPECT_EQ(either->getFrame(), original->getFrame());
        EXPECT_EQ(either->enqueueTime(), UINT64_MAX - 1);
        EXPECT_EQ(either->enqueueOrder(), 0U);
        EXPECT_EQ(either->sendTime(), either == original ? UINT64_MAX : 0);
    }
}

TEST_F(AdmissionTest, PriorityThenAcknowledgementThenAgeDecideUrgency) {
    struct {
        int priority;
        bool needAck;
        uint64_t enqueued;
    } const falling[] = {{INT_MIN, false, 9}, {-5, false, 9},        {1, true, 1},
                         {1, true, 2},        {1, true, 1ULL << 32}, {1, false, 1},
                         {2, true, 1},        {2, false, 0},         {2, false, UINT64_MAX}};
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

TEST_F(AdmissionTest, PacketsLeaveByPriorityAndAmongEqualsByAdmission) {
    int const priorities[] = {2, -4, 0, 3, INT_MAX, INT_MIN, 4, -1};
    std::map<int, std::vector<int>> expected;
    duringSend([&] {
        for (uint16_t id = 1; id <= 100; ++id) {
            int const priority = priorities[id * 37 % 97 % 8];
            Packet const admitted = admit(priority, id);
            if (id % 6 == 0)
                queue->removePacket(admitted);
            else
                expected[priority].push_back(id);
        }
    });
    clock.advance(1999);  // only those of priority 1 do not wait
    EXPECT_EQ(left(), std::vector<int>{999});
    std::vector<int> order{999};
    for (auto const& [priority, ids] : expected)
        order.insert(order.end(), ids.begin(), ids.end());
    clock.advance(1);
    EXPECT_EQ(left(), order);
}

TEST_F(AdmissionTest, PushThatFinds1000PendingIsDropped) {
    for (uint16_t id = 1; id <= 1000; ++id)
        admit(2, id);
    log.clear();
    queue->enqueue(-1, true, frame(1));
    EXPECT_EQ(told(), "enqueue:1; priority:-1|oversize.1000|1000 0 0 0 0 0 0");
    admitTogether({packet(2, 1001)});
    admit(2, 1);
    EXPECT_EQ(told(), "enqueuing packet:1001|oversize.1001|1001 0 0 0 0 0 0");
}

TEST_F(AdmissionTest, PacketTakenOutIsNotPendingAndKeepsNoNeighbour) {
    for (int i = 0; i < 3; ++i) {
        Packet chain[] = {admit(2, 1), admit(2, 2), admit(2, 3), nullptr};
        clock.jump(1);
        Packet copy = new VeskQueue::QueuedPacket(*chain[i]);
        log.clear();
        queue->push(chain[i]);
        EXPECT_EQ(told(),
                  "enqueuing packet:" + std::to_string(i + 1) + "|enqueue fail.|3 0 0 0 0 0 0");
        EXPECT_EQ(chain[i]->enqueueTime(), clock.now() - 1);
        EXPECT_EQ(queue->removePacket(copy), nullptr);
        EXPECT_EQ(queue->removePacket(chain[i]), chain[i + 1]);
        EXPECT_EQ(queue->removePacket(chain[i]), nullptr);
        queue->push(copy);
        EXPECT_EQ(copy->enqueueTime(), clock.now());
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(j == i ? chain[j] : queue->dequeuePacket(), chain[j]);
        }
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
    Packet packets[] = {nullptr, new VeskQueue::QueuedPacket(1, true, nullptr)};
    for (Packet& hollow : packets) {
        queue->push(hollow);
        EXPECT_FALSE(queue->replacePacket(hollow));
        EXPECT_EQ(queue->removePacket(hollow), nullptr);
        std::lock_guard<std::mutex> const lock(queue->mutex());
        EXPECT_FALSE(queue->enqueuePacket(hollow));
        EXPECT_TRUE(queue->addToHistoryList(hollow));
    }
    queue->enqueue(1, true, nullptr);
    queue->receiveFromChannel(nullptr);
    queue->receiveAckMessage(nullptr);
    EXPECT_EQ(told(), "0 0 0 0 0 0 0");
}

}  // namespace
}  // namespace vesk
