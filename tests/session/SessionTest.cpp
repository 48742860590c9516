#include "support/VeskTest.h"

namespace vesk {
namespace {

class SessionTest : public VeskTest {};

TEST_F(SessionTest, CreationIsLoggedUnderTheBareTag) {
    VeskSession const session(7, true, 2, 40, 1, 2, "name");
    EXPECT_EQ(log.messages("VeskSession"), Strings{"create:7,topic:1,bussiness:2"});
    EXPECT_EQ(session.sessionId(), 7);
    EXPECT_EQ(session.clientId(), 40U);
    EXPECT_EQ(session.topicId(), 1);
    EXPECT_EQ(session.businessId(), 2);
    EXPECT_TRUE(session.flag());
    EXPECT_EQ(session.type(), 2);
    EXPECT_EQ(session.name(), "name");
}

TEST_F(SessionTest, SessionWithoutATopicDropsWhatIsSent) {
    VeskSession session(7, false, 1, 40, 2, 1, "");
    vesk->createTopic("test", false);  // too late: it looks once
    log.clear();
    session.send(false, frame(1), 1);
    session.send(true, frame(1), 1);
    clock.settle();
    EXPECT_EQ(session.getTopic(), nullptr);
    EXPECT_EQ(callback->sentCount(), 0U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SessionTest, SessionKeepsItsTopicAndSendsThroughItAfterItsRemoval) {
    vesk->createTopic("test", false);
    VeskSession session(7, false, 1, 40, 2, 1, "");
    auto const topic = vesk->getTopic(2);
    vesk->removeTopic("test");
    EXPECT_EQ(session.getTopic(), topic);
    session.send(false, frame(3), 9);
    session.send(false, nullptr, 1);
    clock.settle();
    EXPECT_EQ(left(), std::vector<int>{3});
}

TEST_F(SessionTest, DeliveryCarriesClientThenSessionAndTheVeryFrame) {
    VeskSession session(7, false, 1, 0x12345678, 2, 1, "");
    auto const sent = frame(1);
    session.receive(true, sent);
    session.receive(false, sent);
    session.receive(true, nullptr);
    auto const deliveries = callback->deliveries();
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[0].clientId, 0x12345678U);
    EXPECT_EQ(deliveries[0].sessionId, 7U);
    EXPECT_EQ(deliveries[0].frame, sent);
    EXPECT_TRUE(deliveries[0].local);
    EXPECT_FALSE(deliveries[1].local);
}

}  // namespace
}  // namespace vesk
