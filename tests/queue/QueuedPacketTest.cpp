#include "support/VeskTest.h"

namespace vesk {
namespace {

struct Urgency {
    int priority;
    bool needAck;
    uint64_t enqueued;
};

bool less(Urgency const& a, Urgency const& b) {
    auto const make = [](Urgency const& urgency) -> Packet {
        Packet packet = new VeskQueue::QueuedPacket(urgency.priority, urgency.needAck, nullptr);
        packet->updateEnqueueTime(urgency.enqueued);
        return packet;
    };
    Packet other = make(b);
    return make(a)->less(other);
}

TEST(QueuedPacketTest, PriorityThenAcknowledgementThenAgeDecideUrgency) {
    struct {
        Urgency more;
        Urgency less;
    } const rows[] = {
            {{1, false, 9}, {2, true, 1}}, {{-5, false, 9}, {0, true, 1}},
            {{0, false, 9}, {1, true, 1}}, {{3, true, 9}, {3, false, 1}},
            {{3, true, 1}, {3, true, 2}},  {{3, false, 1}, {3, false, UINT64_MAX}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_TRUE(less(row.less, row.more));
        EXPECT_FALSE(less(row.more, row.less));
        EXPECT_FALSE(less(row.more, row.more));
    }
    Packet none;
    EXPECT_FALSE(Packet(new VeskQueue::QueuedPacket(1, true, nullptr))->less(none));
}

class QueuedPacketQueueTest : public VeskTest {};

TEST_F(QueuedPacketQueueTest, CopyOfAPendingPacketIsNotPending) {
    Packet first = packet(2, 1, true);
    Packet second = packet(2, 2);
    queue->push(first);
    queue->push(second);
    clock.jump(700);
    Packet copy = new VeskQueue::QueuedPacket(*first);
    EXPECT_EQ(copy->enqueueTime(), ShiftedClock::START);
    EXPECT_EQ(copy->getFrame(), first->getFrame());
    EXPECT_TRUE(copy->needRetransmission());

    queue->push(first);  // is pending already
    EXPECT_EQ(queue->size(), 2);
    queue->push(copy);
    EXPECT_EQ(queue->size(), 3);
    EXPECT_EQ(copy->enqueueTime(), ShiftedClock::START + 700);
}

}  // namespace
}  // namespace vesk
