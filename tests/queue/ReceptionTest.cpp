#include "support/VeskTest.h"

namespace vesk {
namespace {

class ReceptionTest : public VeskTest {};

TEST_F(ReceptionTest, AcknowledgementFrameIsTakenWholeOrNotAtAll) {
    struct {
        uint8_t topic, business;
        uint16_t reply;
        size_t bytes, left;
    } const rows[] = {{0xAA, 0xAA, 2, 8, 1}, {0xAA, 0xAA, 2, 9, 1},  // the rest is no entry
                      {0xAA, 0xAA, 2, 7, 3}, {0xAA, 0xAA, 1, 8, 3}, {0xAA, 0xAA, 0, 0, 3},
                      {0xAA, 1, 2, 8, 3},    {2, 0xAA, 2, 8, 3}};
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        queue->cleanup();
        for (uint16_t const id : Ids{1, 2, 3})
            send(id);
        std::vector<uint8_t> payload{0, 0, 2, 0, 0, 0, 3, 0, 0};
        payload.resize(row.bytes);
        peer.send(FarPeer::Frame{row.topic, row.business, 1, row.reply, 0, 0xAA, payload});
        EXPECT_EQ(queue->awaitingAck(), row.left);
    }
}

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

TEST_F(ReceptionTest, MoreThan1000OwedAreForgotten) {
    for (uint16_t const owed : Ids{1000, 1001}) {
        callback->onSend([&](auto const&) {  // the looper cannot acknowledge meanwhile
            callback->onSend(nullptr);
            for (uint16_t serial = 1; serial <= owed; ++serial)
                peer.send(request(serial));
        });
        send(1);
    }
    ASSERT_EQ(callback->sentCount(), 3U);
    EXPECT_EQ(callback->sent()[1].size(), 12U + 1000 * 4);
}

}  // namespace
}  // namespace vesk
