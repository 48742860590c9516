#include "support/VeskTest.h"

namespace vesk {
namespace {

/** A topic of no catalogue, with sessions that no manager knows. */
class TopicTest : public VeskTest {
protected:
    void add(uint16_t id, int type, uint16_t business, uint32_t client) {
        auto const session =
                std::make_shared<VeskSession>(id, false, type, client, uint16_t{12}, business, "");
        topic->addSession(id, type == PROVIDER, session);
    }

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
    topic->addSession(7, true, nullptr);
    for (bool const local : {false, true})
        topic->publish(local, nullptr, 1);
    VeskTopic(12, false, nullptr).publish(false, frame(1), 1);
    EXPECT_TRUE(receiver(2, 5, 2) == 8 && receiver(3, 5, 1) == 8 && receiver(3, 5, 2) == 9);
    EXPECT_EQ(receiver(2, 4, 1) + receiver(3, 4, 1) + receiver(4, 5, 1), 0U);
    topic->addSession(8, false, std::make_shared<VeskSession>(6, false, 1, 4, 2, 5, ""));
    EXPECT_EQ(receiver(3, 5, 6) * 10 + receiver(3, 5, 8), 40U);  // by its own id
    topic->removeSession(8);
    topic->removeSession(9);
    topic->removeSession(1);
    EXPECT_EQ(receiver(2, 5, 1) + receiver(3, 5, 1), 0U);
    EXPECT_EQ(log.messages("[12]"),
              (Strings{"create.", "addSession:1;business:4", "addSession:1;business:5",
                       "addSession:2;business:5", "create.", "addSession:8;business:5",
                       "mProviders:1mConsumers:2", "mProviders:1mConsumers:2",
                       "mProviders:0mConsumers:1"}));
}

TEST_F(TopicTest, PrioritiesAreCalculatedByTable) {
    int const priorities[] = {2, 2, 3, 3, 2, 2, 3, 3, 2};
    for (int value = -1; value <= 7; ++value)
        EXPECT_EQ(topic->calPriority(value), priorities[value + 1]) << value;
}

}  // namespace
}  // namespace vesk
