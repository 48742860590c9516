#include "support/VeskTest.h"

namespace vesk {
namespace {

class TopicManagerTest : public VeskTest {
protected:
    Strings changes() const {
        Strings texts;
        for (auto const& change : callback->topicChanges()) {
            texts.push_back((change.added ? "+" : "-") + change.topicName);
        }
        return texts;
    }
};

TEST_F(TopicManagerTest, TopicIsPresentFromItsCreationToItsRemoval) {
    EXPECT_FALSE(vesk->hasTopic("test"));
    EXPECT_FALSE(vesk->hasTopic(2));
    EXPECT_EQ(vesk->removeTopic("test"), 0);
    EXPECT_EQ(vesk->getTopic(2), nullptr);

    EXPECT_EQ(vesk->createTopic("test", false), 2);
    auto const topic = vesk->getTopic(2);
    ASSERT_NE(topic, nullptr);
    EXPECT_TRUE(vesk->hasTopic("test"));
    EXPECT_TRUE(vesk->hasTopic(2));
    EXPECT_FALSE(vesk->hasTopic(0));
    EXPECT_FALSE(vesk->hasTopic("virtualcomm"));
    EXPECT_EQ(vesk->createTopic("test", true), 0);
    EXPECT_EQ(vesk->getTopic(2), topic);
    EXPECT_EQ(changes(), Strings{"+test"});

    EXPECT_EQ(vesk->createTopic("virtualcomm", false), 1);
    EXPECT_EQ(vesk->removeTopic("test"), 2);
    EXPECT_EQ(changes(), (Strings{"+test", "+virtualcomm", "-test"}));
    EXPECT_EQ(vesk->getTopic(2), nullptr);
    EXPECT_FALSE(vesk->hasTopic("test"));
    EXPECT_TRUE(vesk->hasTopic(1));
}

TEST_F(TopicManagerTest, UnknownNamesAreRefusedAfterTheirLogLine) {
    EXPECT_EQ(vesk->createTopic("none", false), 0);
    EXPECT_EQ(vesk->removeTopic("none"), 0);
    EXPECT_EQ(vesk->createTopic("", false), 0);
    EXPECT_FALSE(vesk->hasTopic("none"));
    EXPECT_EQ(log.messages("VeskTopicManager"),
              (Strings{"createTopic.none", "removeTopic.none", "createTopic."}));
    EXPECT_TRUE(changes().empty());
}

TEST_F(TopicManagerTest, HostMayLookAroundWhenItIsTold) {
    std::vector<bool> present;
    callback->onTopicChange([&](auto const& change) {
        present.push_back(vesk->hasTopic(change.topicName));
        EXPECT_EQ(vesk->createTopic(change.topicName, true), change.added ? 0 : 2);
        callback->onTopicChange(nullptr);
    });
    vesk->createTopic("test", false);
    EXPECT_EQ(present, std::vector<bool>{true});
}

}  // namespace
}  // namespace vesk
