#include <vesk/VeskCC.h>
#include <vesk/VeskFeedback.h>

#include <gtest/gtest.h>

namespace vesk {
namespace {

TEST(FeedbackTest, SlowDeliveriesAreCountedUntilANormalOne) {
    struct {
        unsigned delay;
        unsigned slow;
    } const rows[] = {{1600, 1}, {1700, 2}, {1500, 0},      {2000, 1},
                      {1501, 2}, {0, 0},    {UINT32_MAX, 1}};
    VeskFeedback feedback;
    VeskCC cc;
    for (auto const& row : rows) {
        feedback.updateDelay(row.delay);
        cc.updateDelay(row.delay);
        EXPECT_EQ(feedback.delay(), row.delay);
        EXPECT_EQ(feedback.slowCount(), row.slow) << row.delay;
        EXPECT_EQ(cc.slowCount(), row.slow) << row.delay;
    }
    cc.cleanup();
    EXPECT_EQ(cc.slowCount(), 0U);
}

TEST(FeedbackTest, PacketsAreCountedModulo32BitsAndForgotten) {
    VeskFeedback feedback;
    feedback.sendPackets(3);
    feedback.sendPackets(-1);
    feedback.receivePackets(-1);
    feedback.updateDelay(2000);
    EXPECT_EQ(feedback.sentPackets(), 2U);
    EXPECT_EQ(feedback.receivedPackets(), UINT32_MAX);
    feedback.cleanup();
    EXPECT_EQ(feedback.sentPackets(), 0U);
    EXPECT_EQ(feedback.receivedPackets(), 0U);
    EXPECT_EQ(feedback.delay(), 0U);
    EXPECT_EQ(feedback.slowCount(), 0U);
}

}  // namespace
}  // namespace vesk
