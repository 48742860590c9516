#include "support/VeskTest.h"

#include <set>
#include <thread>

namespace vesk {
namespace {

TEST(FacadeInstanceTest, ThreadsThatAskAtOnceGetOneInstance) {
    std::vector<std::thread> threads;
    std::vector<Vesk*> seen(4);
    for (Vesk*& instance : seen) {
        threads.emplace_back([&instance] { instance = Vesk::getInstance(); });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(std::set<Vesk*>(seen.begin(), seen.end()).size(), 1U);
    EXPECT_NE(seen[0], nullptr);
    EXPECT_EQ(Vesk::getInstance()->getQueue(), seen[0]->getQueue());
}

class FacadeTest : public VeskTest {};

TEST_F(FacadeTest, CallbackIsReplacedByAnotherButNotByNull) {
    vesk->init(nullptr);
    vesk->sendToChannel({1});
    EXPECT_EQ(callback->sentCount(), 1U);

    android::sp<RecordingCallback> next = new RecordingCallback;
    vesk->init(next);
    vesk->sendToChannel({2});
    EXPECT_EQ(callback->sentCount(), 1U);
    EXPECT_EQ(callback->getStrongCount(), 1);
    EXPECT_EQ(next->sent(), (std::vector<RecordingCallback::Bytes>{{2}}));
    vesk->init(callback);
}

TEST_F(FacadeTest, WhatIsForwardedArrivesAsItWas) {
    auto const sent = frame(1);
    vesk->receive(0xFFFFFFFF, 2, true, sent);
    vesk->receive(3, 4, false, sent);
    vesk->receive(3, 4, false, nullptr);
    vesk->notifyTopicChanged(true, "a");
    vesk->notifyBusinessChanged(false, "b", "c");

    auto const deliveries = callback->deliveries();
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[0].clientId, 0xFFFFFFFF);
    EXPECT_EQ(deliveries[0].sessionId, 2U);
    EXPECT_TRUE(deliveries[0].local);
    EXPECT_EQ(deliveries[0].frame, sent);
    EXPECT_FALSE(deliveries[1].local);
    EXPECT_EQ(callback->topicChanges()[0].topicName, "a");
    EXPECT_TRUE(callback->topicChanges()[0].added);
    auto const business = callback->businessChanges()[0];
    EXPECT_FALSE(business.added);
    EXPECT_EQ(business.topicName + business.businessName, "bc");
}

TEST_F(FacadeTest, RequestsAndRepliesTravelBothWaysAndAllAreAcknowledged) {
    vesk->createTopic("test", false);
    int const consumer = join(1, VeskSessionManager::CONSUMER);
    auto const session = sessions->getSession(static_cast<uint16_t>(consumer));
    peer.acknowledgeAll(callback);
    for (uint16_t id = 1; id <= 5; ++id) {
        session->send(false, frame(id, 2, static_cast<uint16_t>(consumer)), 1);
        peer.send(FarPeer::Frame{2, 1, 3, static_cast<uint16_t>(consumer), id, id, {1, 2, 3}});
    }
    clock.settle();
    EXPECT_EQ(left(), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(callback->deliveries().size(), 5U);
    EXPECT_EQ(acksLeft().size(), 1U);
    EXPECT_EQ(queue->awaitingAck(), 0U);
    EXPECT_EQ(queue->feedback().receivedPackets(), 5U);
}

}  // namespace
}  // namespace vesk
