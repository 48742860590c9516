#include "support/VeskTest.h"

namespace vesk {
namespace {

class ReceptionTest : public VeskTest {};

TEST_F(ReceptionTest, DelayIsTheTimeSinceSendingLessTheHoldTime) {
    struct {
        uint64_t elapsed;
        uint16_t hold;
        uint32_t delay, slow;
    } const rows[] = {{1999, 498, 1501, 1}, {1600, 100, 1500, 0}, {0, 0x0102, 0xFFFFFEFE, 1}};
    for (auto const& row : rows) {
        send(1);
        clock.advance(row.elapsed);
        auto const younger = frame(2);
        younger->serialNumber = 1;
        queue->enqueue(1, true, younger);
        clock.settle();
        peer.acknowledge(1, row.hold);  // of two, the older
        EXPECT_EQ(queue->feedback().delay(), row.delay);
        EXPECT_EQ(queue->feedback().slowCount(), row.slow);
        peer.acknowledge(1);
    }
}

}  // namespace
}  // namespace vesk
