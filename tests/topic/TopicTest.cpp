#include "support/VeskTest.h"

namespace vesk {
namespace {

/** A topic of no catalogue, with sessions that no manager knows. */
class TopicTest : public VeskTest {
protected:
    /** Whoever destroys the session under the topic's lock never returns. */
    void add(uint16_t id, int type, uint16_t business, uint32_t client) {
        auto const gone = [this](VeskSession* session) {
            if (topic) topic->receive(false, frame(1));
            delete session;
        };
        auto* const session = new VeskSession(id, false, type, client, 12, business, "");
        topic->addSession(id, type == PROVIDER, {session, gone});
    }

    ~TopicTest() override { auto const last = std::move(topic); }

    /** The client that gets this frame; 0 for none. */
    uint32_t receiver(uint8_t type, uint8_t business, uint16_t reply) {
        callback->clear();
        auto const sent = frame(1, type, reply);
        sent->businessId = business;
        topic->receive(false, sent);
        auto const deliveries = callback->deliveries();
        return deliveries.size() == 1 && !deliveries[0].local ? deliveries[0].clientId : 0;
    }

    std::shared_ptr<VeskTopic> topic = std::make_shared<VeskTopic>(uint16_t{12}, false, queue);
};

TEST_F(TopicTest, SessionsComeAndGoById) {
    add(1, PROVIDER, 4, 7);
    add(1, PROVIDER, 5, 8);  // in place of the one before
    add(2, CONSUMER, 5, 9);
    for (int const type : {PROVIDER, CONSUMER, PROVIDER})
        add(3, type, 6, 6);  // then each table lets go of one alone
    topic->addSession(7, true, nullptr);
    for (bool const local : {false, true})
        topic->publish(local, nullptr, 1);
    VeskTopic(12, false, nullptr).publish(false, frame(1), 1);
    EXPECT_TRUE(receiver(2, 5, 2) == 8 && receiver(3, 5, 1) == 8 && receiver(3, 5, 2) == 9);
    EXPECT_EQ(receiver(2, 4, 1) + receiver(3, 4, 1) + receiver(4, 5, 1), 0U);
    topic->addSession(8, false, std::make_shared<VeskSession>(6, false, 1, 4, 2, 5, ""));
    add(3, CONSUMER, 7, 5);
    EXPECT_EQ(receiver(3, 5, 6) * 10 + receiver(3, 5, 8), 40U);  // by its own id
    topic->addSession(9, false, std::make_shared<VeskSession>(8, false, 1, 3, 2, 5, ""));
    EXPECT_EQ(receiver(3, 5, 8), 3U);
    topic->removeSession(8);
    topic->removeSession(9);
    topic->removeSession(1);
    EXPECT_EQ(receiver(2, 5, 1) + receiver(3, 5, 1), 0U);
    EXPECT_EQ(log.messages("[12]"),
              (Strings{"create.", "addSession:1;business:4", "addSession:1;business:5",
                       "addSession:2;business:5", "addSession:3;business:6",
                       "addSession:3;business:6", "addSession:3;business:6", "create.",
                       "addSession:8;business:5", "addSession:3;business:7",
                       "addSession:9;business:5", "mProviders:2mConsumers:4",
                       "mProviders:2mConsumers:3", "mProviders:1mConsumers:2"}));
}

TEST_F(TopicTest, PrioritiesAreCalculatedByTable) {
    int const priorities[] = {2, 2, 3, 3, 2, 2, 3, 3, 2};
    for (int value = -1; value <= 7; ++value)
        EXPECT_EQ(topic->calPriority(value), priorities[value + 1]) << value;
}

TEST_F(TopicTest, ASessionIsFoundByItsOwnIdWhateverItsKeyAndByTheKeyFirst) {
    topic->addSession(9, false, std::make_shared<VeskSession>(7, false, CONSUMER, 4, 12, 5, ""));
    EXPECT_EQ(receiver(3, 5, 7), 4U);
    add(6, CONSUMER, 5, 1);
    topic->addSession(8, false, std::make_shared<VeskSession>(6, false, CONSUMER, 2, 12, 5, ""));
    EXPECT_EQ(receiver(3, 5, 6), 1U);
}

}  // namespace
}  // namespace vesk
