#include <vesk/VeskCC.h>
#include <vesk/VeskFeedback.h>

#include <gtest/gtest.h>

namespace vesk {
namespace {

TEST(FeedbackTest, SlowDeliveriesAreCountedUntilANormalOne) {
    unsigned const delays[] = {1600, 1700, 1500, 2000, 1501, 0, UINT32_MAX};
    unsigned const slow[] = {1, 2, 0, 1, 2, 0, 1};
    VeskFeedback feedback;
    VeskCC cc;
    for (size_t i = 0; i < std::size(delays); ++i) {
        feedback.updateDelay(delays[i]);
        cc.updateDelay(delays[i]);
        EXPECT_EQ(feedback.delay(), delays[i]);
        EXPECT_EQ(feedback.slowCount(), slow[i]) << delays[i];
        EXPECT_EQ(cc.slowCount(), slow[i]) << delays[i];
    }
    cc.cleanup();
    EXPECT_EQ(cc.slowCount(), 0U);
}

TEST(FeedbackTest, PacketsAreCountedModulo32Bits) {
    VeskFeedback feedback;
    feedback.sendPackets(3);
    feedback.sendPackets(-1);
    feedback.receivePackets(-1);
    EXPECT_EQ(feedback.sentPackets(), 2U);
    EXPECT_EQ(feedback.receivedPackets(), UINT32_MAX);
}

}  // namespace
}  // namespace vesk
