#include "support/VeskTest.h"

namespace vesk {
namespace {

class FacadeTest : public VeskTest {};

TEST_F(FacadeTest, CallbackIsReplacedByAnotherButNotByNull) {
    vesk->init(nullptr);
    vesk->sendToChannel({1});
    android::sp<RecordingCallback> const next = new RecordingCallback;
    vesk->init(next);
    vesk->sendToChannel({2});
    EXPECT_EQ(callback->sent(), (std::vector<RecordingCallback::Bytes>{{1}}));
    EXPECT_EQ(callback->getStrongCount(), 1);
    EXPECT_EQ(next->sent(), (std::vector<RecordingCallback::Bytes>{{2}}));
    vesk->init(callback);
}

TEST_F(FacadeTest, TopicIsPresentFromItsCreationToItsRemoval) {
    Strings changes;
    std::weak_ptr<VeskTopic> alive;
    callback->onTopicChange([&](auto const& change) {
        changes.push_back((change.added ? "+" : "-") + change.topicName);
        EXPECT_EQ(vesk->hasTopic(change.topicName), change.added);
        EXPECT_TRUE(alive.expired());
    });
    EXPECT_EQ(vesk->removeTopic("test"), 0);
    EXPECT_EQ(vesk->createTopic("test", false), 2);
    alive = vesk->getTopic(2);
    EXPECT_EQ(vesk->createTopic("test", true), 0);
    EXPECT_EQ(vesk->getTopic(2), alive.lock());
    EXPECT_EQ(vesk->removeTopic("test"), 2);
    EXPECT_EQ(changes, (Strings{"+test", "-test"}));

    log.clear();
    EXPECT_EQ(vesk->createTopic("none", false), 0);
    EXPECT_EQ(vesk->removeTopic("none"), 0);
    EXPECT_FALSE(vesk->hasTopic("none"));
    EXPECT_EQ(log.messages("VeskTopicManager"), (Strings{"createTopic.none", "removeTopic.none"}));
    EXPECT_EQ(changes.size(), 2U);
}

}  // namespace
}  // namespace vesk
