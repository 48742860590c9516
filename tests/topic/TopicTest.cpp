#include "support/VeskTest.h"

namespace vesk {
namespace {

/** A topic of no catalogue, with sessions that no manager knows. */
class TopicTest : public VeskTest {
protected:
    void add(uint16_t id, bool provider, uint16_t business, uint32_t client = 1) {
        int const type = provider ? 2 : 1;
        topic->addSession(
                id, provider,
                std::make_shared<VeskSession>(id, false, type, client, uint16_t{12}, business, ""));
    }

    /** The sessions that got this frame. */
    std::vector<uint32_t> receivers(uint8_t type, uint8_t business, uint16_t reply) {
        callback->clear();
        auto const sent = frame(1, type, reply);
        sent->businessId = business;
        topic->receive(false, sent);
        std::vector<uint32_t> ids;
        for (auto const& delivery : callback->deliveries())
            ids.push_back(delivery.sessionId);
        return ids;
    }

    Strings changes() const {
        Strings texts;
        for (auto const& change : callback->topicChanges()) {
            texts.push_back((change.added ? "+" : "-") + change.topicName);
        }
        return texts;
    }

    std::shared_ptr<VeskTopic> topic = std::make_shared<VeskTopic>(uint16_t{12}, false, queue);
};

TEST_F(TopicTest, FrameReachesTheOneSessionThatItIsMeantFor) {
    add(1, true, 4);
    add(2, false, 4);
    add(3, false, 5);
    struct {
        uint8_t type, business;
        uint16_t reply;
        std::vector<uint32_t> receivers;
    } const rows[] = {
            {2, 4, 2, {1}}, {2, 5, 3, {}},  {3, 4, 2, {2}}, {3, 4, 1, {1}}, {3, 5, 2, {}},
            {3, 5, 3, {3}}, {3, 4, 99, {}}, {1, 4, 2, {}},  {4, 4, 2, {}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(receivers(row.type, row.business, row.reply), row.receivers);
    }
    add(6, true, 4);
    EXPECT_EQ(receivers(2, 4, 0).size(), 1U);  // of two providers
    topic->receive(false, nullptr);
    topic->addSession(7, true, nullptr);
}

TEST_F(TopicTest, SessionsComeAndGoById) {
    add(1, true, 4);
    add(1, true, 5, 8);
    EXPECT_TRUE(receivers(3, 4, 1).empty());
    EXPECT_EQ(receivers(2, 5, 0), std::vector<uint32_t>{1});
    EXPECT_EQ(callback->deliveries()[0].clientId, 8U);
    add(2, false, 5);
    topic->removeSession(9);
    topic->removeSession(1);
    EXPECT_TRUE(receivers(2, 5, 0).empty());
    EXPECT_TRUE(receivers(3, 5, 1).empty());
    EXPECT_EQ(log.messages("[12]"),
              (Strings{"create.", "addSession:1;business:4", "addSession:1;business:5",
                       "addSession:2;business:5", "mProviders:1mConsumers:2",
                       "mProviders:0mConsumers:1"}));
}

TEST_F(TopicTest, PublishQueuesAtPriorityOneOrLoopsBack) {
    add(1, true, 1);
    topic->publish(false, frame(5), 3);
    topic->publish(false, nullptr, 1);
    auto const looped = frame(6);
    topic->publish(true, looped, 3);
    topic->publish(true, nullptr, 1);
    clock.settle();
    EXPECT_TRUE(log.contains("VeskQueue", "enqueue:5; priority:1"));
    EXPECT_EQ(left(), std::vector<int>{5});
    EXPECT_EQ(queue->awaitingAck(), 1U);
    ASSERT_EQ(callback->deliveries().size(), 1U);
    EXPECT_EQ(callback->deliveries()[0].frame, looped);
    EXPECT_TRUE(callback->deliveries()[0].local);
}

TEST_F(TopicTest, LocalTopicRefusesThePeerOnly) {
    topic = std::make_shared<VeskTopic>(uint16_t{12}, true, queue);
    add(1, true, 1);
    topic->publish(false, frame(5), 1);
    EXPECT_EQ(log.count("[12]", "publish fail for local!"), 1U);
    topic->publish(true, frame(6), 1);
    clock.settle();
    EXPECT_EQ(callback->sentCount(), 0U);
    EXPECT_EQ(callback->deliveries().size(), 1U);
}

TEST_F(TopicTest, PrioritiesAreCalculatedByTable) {
    int const expected[] = {2, 2, 3, 3, 2, 2, 3, 3, 2};
    for (int value = -1; value <= 7; ++value) {
        EXPECT_EQ(topic->calPriority(value), expected[value + 1]) << value;
    }
}

TEST_F(TopicTest, TopicIsPresentFromItsCreationToItsRemoval) {
    EXPECT_FALSE(vesk->hasTopic("test"));
    EXPECT_FALSE(vesk->hasTopic(2));
    EXPECT_EQ(vesk->removeTopic("test"), 0);
    EXPECT_EQ(vesk->createTopic("test", false), 2);
    auto const created = vesk->getTopic(2);
    EXPECT_TRUE(created && vesk->hasTopic("test") && vesk->hasTopic(2));
    EXPECT_FALSE(vesk->hasTopic(0) || vesk->hasTopic("virtualcomm"));
    EXPECT_EQ(vesk->createTopic("test", true), 0);
    EXPECT_EQ(vesk->getTopic(2), created);
    EXPECT_EQ(vesk->createTopic("virtualcomm", false), 1);
    EXPECT_EQ(vesk->removeTopic("test"), 2);
    EXPECT_EQ(changes(), (Strings{"+test", "+virtualcomm", "-test"}));
    EXPECT_EQ(vesk->getTopic(2), nullptr);
    EXPECT_FALSE(vesk->hasTopic("test"));
    EXPECT_TRUE(vesk->hasTopic(1));
}

TEST_F(TopicTest, UnknownTopicIsRefusedAfterItsLogLine) {
    EXPECT_EQ(vesk->createTopic("none", false), 0);
    EXPECT_EQ(vesk->removeTopic("none"), 0);
    EXPECT_FALSE(vesk->hasTopic("none"));
    EXPECT_EQ(log.messages("VeskTopicManager"), (Strings{"createTopic.none", "removeTopic.none"}));
    EXPECT_TRUE(changes().empty());
}

}  // namespace
}  // namespace vesk
