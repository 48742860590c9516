#include "support/VeskTest.h"

namespace vesk {
namespace {

class FacadeTest : public VeskTest {};

struct CallingCallback : RecordingCallback {
    ~CallingCallback() override { Vesk::getInstance()->sendToChannel({3}); }
};

TEST_F(FacadeTest, CallbackIsReplacedByAnotherButNotByNull) {
    vesk->init(nullptr);
    vesk->sendToChannel({1});
    android::sp<RecordingCallback> const next = new RecordingCallback;
    vesk->init(next);
    vesk->sendToChannel({2});
    EXPECT_EQ(callback->sent(), (std::vector<RecordingCallback::Bytes>{{1}}));
    EXPECT_EQ(callback->getStrongCount(), 1);
    EXPECT_EQ(next->sent(), (std::vector<RecordingCallback::Bytes>{{2}}));
    vesk->init(new CallingCallback);
    vesk->init(callback);  // is there, and no lock is held, when the earlier one goes
    EXPECT_EQ(callback->sent().back(), RecordingCallback::Bytes{3});
    {
        Vesk own;
        own.init(next);
        EXPECT_EQ(own.createTopic("test", false), 2);
    }
    EXPECT_EQ(next->getStrongCount(), 1);
}

TEST_F(FacadeTest, OnlyAChannelThatGoesEmptiesTheQueue) {
    for (bool const available : {true, false}) {
        queue->enqueue(2, true, frame(2));
        vesk->onChannelAvailable(available);
        EXPECT_EQ(queue->empty(), !available);
    }
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
    EXPECT_TRUE(vesk->getTopic(2) == alive.lock() && vesk->hasTopic(2) && !vesk->hasTopic(0));
    EXPECT_EQ(vesk->removeTopic("test"), 2);
    EXPECT_EQ(changes, (Strings{"+test", "-test"}));

    vesk->createTopic("virtualcomm", true);
    vesk->getTopic(1)->publish(false, frame(1), 1);
    EXPECT_EQ(log.messages("[1]"), (Strings{"create.", "publish fail for local!"}));
    changes.clear();
    log.clear();
    EXPECT_EQ(vesk->createTopic("none", false), 0);
    EXPECT_EQ(vesk->removeTopic("none"), 0);
    EXPECT_FALSE(vesk->hasTopic("none"));
    EXPECT_EQ(log.messages("VeskTopicManager"), (Strings{"createTopic.none", "removeTopic.none"}));
    EXPECT_TRUE(changes.empty());
}

}  // namespace
}  // namespace vesk
