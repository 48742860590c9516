#include <malloc.h>

#include <quillex/Log.h>

#include "support/VeskTest.h"

namespace vesk {
namespace {

class FacadeTest : public VeskTest {};

TEST_F(FacadeTest, CallbackIsReplacedButNotByNullAndOnlyALostChannelEmptiesTheQueue) {
    vesk->init(nullptr);
    vesk->sendToChannel({1});
    vesk->init(new RecordingCallback);
    vesk->sendToChannel({2});
    EXPECT_EQ(callback->sent(), (std::vector<RecordingCallback::Bytes>{{1}}));
    EXPECT_EQ(callback->getStrongCount(), 1);
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
    EXPECT_EQ(vesk->removeTopic("test") + vesk->removeTopic("none"), 0);
    EXPECT_EQ(vesk->createTopic("test", false), 2);
    alive = vesk->getTopic(2);
    EXPECT_EQ(vesk->createTopic("test", true) + vesk->createTopic("none", false), 0);
    EXPECT_TRUE(vesk->getTopic(2) == alive.lock() && vesk->hasTopic(2) && !vesk->hasTopic(0));
    EXPECT_FALSE(vesk->hasTopic("none"));
    EXPECT_EQ(vesk->removeTopic("test"), 2);
    EXPECT_EQ(changes, (Strings{"+test", "-test"}));
    EXPECT_EQ(log.messages("VeskTopicManager"),
              (Strings{"removeTopic.test", "removeTopic.none", "createTopic.test",
                       "createTopic.test", "createTopic.none", "removeTopic.test"}));
    vesk->createTopic("virtualcomm", true);
    auto const none = std::shared_ptr<VeskFrame>();
    for (auto const& [local, each] : {std::pair(false, frame(1)), {false, none}, {true, none}})
        vesk->getTopic(1)->publish(local, each, 1);
    EXPECT_EQ(log.count("[1]", "publish fail for local!") + log.count("[2]", "create."), 3U);
}

TEST_F(FacadeTest, RemovedTopicsTakeNoMemory) {
    quillex::Log::setSink(nullptr);  // what it keeps would be counted
    callback->onTopicChange([&](auto const&) { callback->clear(); });
    size_t before = 0;
    for (int times = 0; times < 2000; ++times) {
        if (times == 10) before = mallinfo2().uordblks;
        vesk->createTopic("test", false);
        vesk->removeTopic("test");
    }
    EXPECT_LE(mallinfo2().uordblks, before + 10000);
}

}  // namespace
}  // namespace vesk
