#include "support/VeskTest.h"

#include <thread>

namespace vesk {
namespace {

TEST(FacadeInstanceTest, ThreadsThatAskAtOnceGetOneInstance) {
    Vesk* seen = nullptr;
    std::thread other([&seen] { seen = Vesk::getInstance(); });
    Vesk* const mine = Vesk::getInstance();
    other.join();
    EXPECT_EQ(seen, mine);
}

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

TEST_F(FacadeTest, RequestsAndRepliesTravelBothWaysAndAllAreAcknowledged) {
    vesk->createTopic("test", false);
    int const consumer = join(1, CONSUMER);
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
