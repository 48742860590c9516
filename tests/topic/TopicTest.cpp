#include "support/VeskTest.h"

namespace vesk {
namespace {

/** A topic of no catalogue, with sessions that no manager knows. */
class TopicTest : public VeskTest {
protected:
    void add(uint16_t id, bool provider, uint16_t business, uint32_t client = 1) {
        auto const session = std::make_shared<VeskSession>(
                id, false, provider ? PROVIDER : CONSUMER, client, uint16_t{12}, business, "");
        topic->addSession(id, provider, session);
    }

    /** The clients that got this frame. */
    std::vector<uint32_t> receivers(uint8_t type, uint8_t business, uint16_t reply) {
        callback->clear();
        auto const sent = frame(1, type, reply);
        sent->businessId = business;
        topic->receive(false, sent);
        std::vector<uint32_t> ids;
        for (auto const& delivery : callback->deliveries())
            ids.push_back(delivery.local ? 0 : delivery.clientId);
        return ids;
    }

    std::shared_ptr<VeskTopic> topic = std::make_shared<VeskTopic>(uint16_t{12}, false, queue);
};

TEST_F(TopicTest, SessionsComeAndGoById) {
    using Clients = std::vector<uint32_t>;
    add(1, true, 4);
    add(1, true, 5, 8);
    add(2, false, 5);
    add(3, true, 6, 6);
    topic->addSession(7, true, nullptr);
    topic->receive(false, nullptr);
    EXPECT_EQ(receivers(3, 4, 1), Clients());
    EXPECT_EQ(receivers(2, 5, 0), Clients{8});
    EXPECT_EQ(receivers(2, 6, 1), Clients{6});
    EXPECT_EQ(receivers(3, 5, 1), Clients{8});  // providers get replies too
    EXPECT_EQ(receivers(4, 5, 1), Clients());
    topic->removeSession(9);
    topic->removeSession(1);
    EXPECT_EQ(receivers(2, 5, 0), Clients());
    EXPECT_EQ(receivers(3, 5, 1), Clients());
    EXPECT_EQ(receivers(3, 5, 2), Clients{1});
    EXPECT_EQ(log.messages("[12]"),
              (Strings{"create.", "addSession:1;business:4", "addSession:1;business:5",
                       "addSession:2;business:5", "addSession:3;business:6",
                       "mProviders:2mConsumers:3", "mProviders:1mConsumers:2"}));
}

TEST_F(TopicTest, FrameIsLoopedBackSentOrRefused) {
    for (int const kind : {0, 1, 2, 3}) {
        bool const isLocal = kind / 2, local = kind % 2;
        topic = std::make_shared<VeskTopic>(uint16_t{12}, isLocal, queue);
        add(1, true, 1);
        callback->clear();
        log.clear();
        for (auto const& each : {frame(5), std::shared_ptr<VeskFrame>()})
            topic->publish(local, each, 3);
        clock.settle();
        EXPECT_EQ(callback->deliveries().size(), local) << kind;
        EXPECT_TRUE(!local || callback->deliveries()[0].local);
        EXPECT_EQ(callback->sentCount(), kind == 0) << kind;
        EXPECT_EQ(queue->awaitingAck(), 1U);  // of the first round, which the peer never answers
        EXPECT_EQ(log.count("[12]", "publish fail for local!"), kind == 2 ? 2U : 0U);
    }
}

TEST_F(TopicTest, PrioritiesAreCalculatedByTable) {
    int const expected[] = {2, 2, 3, 3, 2, 2, 3, 3, 2};
    for (int value = -1; value <= 7; ++value)
        EXPECT_EQ(topic->calPriority(value), expected[value + 1]) << value;
}

}  // namespace
}  // namespace vesk
