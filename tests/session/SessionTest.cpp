#include "support/VeskTest.h"

#include <set>

namespace vesk {
namespace {

class SessionTest : public VeskTest {
protected:
    SessionTest() {
        vesk->createTopic("test", false);
        topic = vesk->getTopic(2);
        log.clear();
    }

    std::shared_ptr<VeskSession> session(int id) const {
        return sessions->getSession(static_cast<uint16_t>(id));
    }

    size_t remove(int id) { return sessions->removeSession(static_cast<uint16_t>(id)); }

    /** Whether a reply addressed to this session, or a request, is delivered. */
    bool routed(int id, uint8_t type = 3) {
        size_t const before = callback->deliveries().size();
        topic->receive(false, frame(1, type, static_cast<uint16_t>(id)));
        return callback->deliveries().size() > before;
    }

    Strings changes() const {
        Strings texts;
        for (auto const& change : callback->businessChanges()) {
            texts.push_back((change.added ? "+" : "-") + change.topicName + '/' +
                            change.businessName);
        }
        return texts;
    }

    Strings managerLog() const { return log.messages("VeskSessionManager"); }

    std::shared_ptr<VeskTopic> topic;
};

TEST_F(SessionTest, TopicIsLookedUpOnceAndDeliveryNeedsNone) {
    VeskSession without(7, true, 2, 0x12345678, 1, 2, "name");
    EXPECT_EQ(log.messages("VeskSession"), Strings{"create:7,topic:1,bussiness:2"});
    vesk->createTopic("virtualcomm", false);
    without.send(false, frame(1), 1);
    EXPECT_EQ(without.getTopic(), nullptr);
    auto const received = frame(1);
    without.receive(true, received);
    without.receive(false, nullptr);
    ASSERT_EQ(callback->deliveries().size(), 1U);
    EXPECT_EQ(callback->deliveries()[0].clientId, 0x12345678U);
    EXPECT_EQ(callback->deliveries()[0].sessionId, 7U);
    EXPECT_EQ(callback->deliveries()[0].frame, received);
}

TEST_F(SessionTest, ProviderIsAnnouncedOnceAndFoundAgainByAllItsKeys) {
    int const id = join(1, PROVIDER);
    EXPECT_EQ(managerLog(),
              (Strings{"createSession:test;in_bussiness:test", "getSessionDesc:4; topic:test",
                       "createSession:" + std::to_string(id) + "; topic:test"}));
    EXPECT_EQ(join(1, PROVIDER), id);
    EXPECT_EQ(managerLog().back(), "provider has exist:" + std::to_string(id));
    vesk->createTopic("virtualcomm", false);
    std::set<int> const ids{id, join(2, PROVIDER),
                            sessions->createSession(1, PROVIDER, "test", "test", true),
                            sessions->createSession(1, PROVIDER, "virtualcomm", "vm", false),
                            sessions->createSession(1, PROVIDER, "virtualcomm", "ril0", false)};
    EXPECT_EQ(ids.size(), 5U);
    EXPECT_EQ(changes().size(), 5U);
    EXPECT_EQ(changes().back(), "+virtualcomm/ril0");
}

TEST_F(SessionTest, WhatCannotBeJoinedFailsAndUsesNoIdUp) {
    std::tuple<int, char const*, char const*> const unknown[] = {
            {0, "test", "test"},         {3, "test", "test"},
            {CONSUMER, "", "test"},      {CONSUMER, "none", "test"},
            {CONSUMER, "test", "cell0"}, {PROVIDER, "virtualcomm", "cell0"}};
    for (auto const& [type, name, business] : unknown)
        EXPECT_EQ(sessions->createSession(1, type, name, business, false), -4) << name;
    EXPECT_EQ(log.count("VeskSessionManager", "createSession:-4; topic:test"), 2U);
    EXPECT_EQ(log.count("VeskSessionManager", "getSessionDesc: null"), 4U);
    EXPECT_TRUE(changes().empty());
    EXPECT_EQ(join(1, CONSUMER), 1);
}

TEST_F(SessionTest, RemovalByIdLeavesAProviderInItsTopicAndRemovalByClientNothing) {
    int const consumer = join(1, CONSUMER), provider = join(1, PROVIDER);
    EXPECT_EQ(remove(consumer) + remove(consumer), 1U);
    EXPECT_EQ(remove(provider) + remove(provider), 1U);
    EXPECT_FALSE(session(provider));
    EXPECT_FALSE(routed(consumer));
    EXPECT_TRUE(routed(provider) && routed(0, 2));
    EXPECT_LT(join(3, CONSUMER), provider);
    EXPECT_EQ(join(3, CONSUMER), provider);
    sessions->removeSessionByClient(3);  // and what its id had left behind
    EXPECT_FALSE(routed(provider) || routed(0, 2));

    int const ids[] = {join(1, CONSUMER), join(1, PROVIDER), join(2, CONSUMER), join(2, PROVIDER)};
    callback->clear();
    log.clear();
    EXPECT_EQ(sessions->removeSessionByClient(1), 0);
    for (int const id : ids)
        EXPECT_EQ(session(id) && routed(id), id > ids[1]) << id;
    EXPECT_FALSE(routed(ids[0]) || routed(ids[1]));
    EXPECT_EQ(changes(), Strings{"-test/test"});
    EXPECT_EQ(managerLog(), (Strings{"remove session done :1", "remove providerSessions done:1"}));
}

TEST_F(SessionTest, ProvidersOfAClientAreAnnouncedOnceEachWithItsConsumersGone) {
    int const consumer = join(1, CONSUMER);
    int const providers[] = {join(1, PROVIDER),
                             sessions->createSession(1, PROVIDER, "test", "test", true)};
    callback->clear();
    callback->onBusinessChange([&](auto const&) {
        EXPECT_FALSE(session(consumer));
        for (int const id : providers)
            remove(id);
    });
    sessions->removeSessionByClient(1);
    EXPECT_EQ(changes().size(), 2U);
}

TEST_F(SessionTest, LowestFreeIdIsHandedOutWhateverTheNumber) {
    for (int id = 1; id <= 65534; ++id)
        ASSERT_EQ(sessions->makeSessionId(), id);
    EXPECT_EQ(join(1, CONSUMER), -4);
    EXPECT_EQ(managerLog().back(), "createSession:-4; topic:test");
    for (int const freed : {60000, 2, 65534, 2})
        remove(freed);
    for (int const id : {2, 60000, 65534, -1})
        EXPECT_EQ(sessions->makeSessionId(), id);
    for (int id = 1; id <= 65534; ++id)
        remove(id);
    EXPECT_EQ(join(1, CONSUMER), 1);
}

TEST_F(SessionTest, NewProviderIsKnownButNotRoutedWhenItIsAnnounced) {
    for (bool const removes : {false, true}) {
        callback->onBusinessChange([&](auto const& change) {
            if (!change.added) return;
            EXPECT_TRUE(session(1) && !routed(1));
            if (removes) sessions->removeSessionByClient(1);
        });
        EXPECT_EQ(join(1, PROVIDER), 1);
        EXPECT_EQ(session(1) != nullptr, !removes);
        EXPECT_EQ(routed(1), !removes);
        sessions->removeSessionByClient(1);
    }
}

TEST_F(SessionTest, IdOfAProviderIsFreeWhenItsRemovalIsAnnounced) {
    EXPECT_EQ(join(1, PROVIDER), 1);
    callback->onBusinessChange([&](auto const& change) {
        if (change.added) return;
        EXPECT_TRUE(session(1));
        EXPECT_EQ(join(2, PROVIDER), 1);
    });
    EXPECT_EQ(remove(1), 1U);
    ASSERT_TRUE(session(1));
    EXPECT_EQ(session(1)->clientId(), 2U);
}

TEST_F(SessionTest, ClientMayGoWhileItsProviderIsAnnouncedAsGone) {
    join(1, PROVIDER);
    callback->onBusinessChange([&](auto const&) {
        EXPECT_EQ(join(2, CONSUMER), 1);  // the id is free; the place in the topic is its own
        sessions->removeSessionByClient(1);
    });
    EXPECT_EQ(remove(1), 1U);
    EXPECT_EQ(changes(), (Strings{"+test/test", "-test/test"}));
    EXPECT_TRUE(routed(1) && !routed(0, 2));
}

TEST_F(SessionTest, DeliveryMayAnswerAndRemoveTheClientAndTheTopic) {
    int const consumer = join(1, CONSUMER), provider = join(2, PROVIDER);
    callback->onReceive([&](auto const& delivery) {
        if (delivery.clientId != 2) return;
        session(provider)->send(true, frame(5, 3, delivery.frame->reply), 1);
        sessions->removeSessionByClient(2);
        vesk->removeTopic("test");
    });
    session(consumer)->send(true, frame(5, 2, static_cast<uint16_t>(consumer)), 1);
    ASSERT_EQ(callback->deliveries().size(), 2U);
    EXPECT_EQ(callback->deliveries()[1].clientId, 1U);
    EXPECT_EQ(session(provider), nullptr);
}

}  // namespace
}  // namespace vesk
