#include "support/VeskTest.h"

namespace vesk {
namespace {

class SessionManagerTest : public VeskTest {
protected:
    static constexpr int CONSUMER = VeskSessionManager::CONSUMER;
    static constexpr int PROVIDER = VeskSessionManager::PROVIDER;

    SessionManagerTest() {
        vesk->createTopic("test", false);
        topic = vesk->getTopic(2);
        callback->clear();
        log.clear();
    }

    std::shared_ptr<VeskSession> session(int id) const {
        return sessions->getSession(static_cast<uint16_t>(id));
    }

    /** Whether a reply addressed to this session is delivered. */
    bool routed(int sessionId) {
        size_t const before = callback->deliveries().size();
        topic->receive(false, frame(1, 3, static_cast<uint16_t>(sessionId)));
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

TEST_F(SessionManagerTest, ProviderIsAnnouncedOnceAndFoundAgain) {
    int const id = join(1, PROVIDER);
    EXPECT_EQ(managerLog(),
              (Strings{"createSession:test;in_bussiness:test", "getSessionDesc:4; topic:test",
                       "createSession:" + std::to_string(id) + "; topic:test"}));
    log.clear();
    EXPECT_EQ(join(1, PROVIDER), id);
    EXPECT_EQ(managerLog().back(), "provider has exist:" + std::to_string(id));
    EXPECT_EQ(changes(), Strings{"+test/test"});
    ASSERT_NE(session(id), nullptr);
    EXPECT_EQ(session(id)->clientId(), 1U);
    EXPECT_EQ(session(id)->type(), PROVIDER);
    EXPECT_TRUE(routed(id));
}

TEST_F(SessionManagerTest, EveryKeyOfAProviderTellsItApart) {
    vesk->createTopic("virtualcomm", false);
    auto const create = [&](int client, char const* topicName, char const* business, bool flag) {
        return sessions->createSession(client, PROVIDER, topicName, business, flag);
    };
    std::set<int> const ids{create(1, "test", "test", false), create(2, "test", "test", false),
                            create(1, "test", "test", true),
                            create(1, "virtualcomm", "cell0", true),
                            create(1, "virtualcomm", "cell1", true)};
    EXPECT_EQ(ids.size(), 5U);
    EXPECT_EQ(changes().size(), 5U);
}

TEST_F(SessionManagerTest, ConsumersAreNeitherSharedNorAnnounced) {
    int const first = join(1, CONSUMER);
    int const second = join(1, CONSUMER);
    EXPECT_EQ(second, first + 1);
    EXPECT_TRUE(routed(first));
    EXPECT_TRUE(routed(second));
    EXPECT_TRUE(changes().empty());
}

TEST_F(SessionManagerTest, WhatCannotBeJoinedFailsAndSaysWhy) {
    struct {
        int type;
        char const *topicName, *business;
        Strings lines;
    } const rows[] = {
            {0, "test", "test", {"createSession:-4; topic:test"}},
            {3, "test", "test", {"createSession:-4; topic:test"}},
            {1, "", "test", {"getSessionDesc:0; topic:", "getSessionDesc: null"}},
            {2, "none", "test", {"getSessionDesc:4; topic:none", "getSessionDesc: null"}},
            {2,
             "virtualcomm",
             "cell0",
             {"getSessionDesc:11; topic:virtualcomm", "getSessionDesc: null"}},
            {1, "test", "cell0", {"getSessionDesc:4; topic:test", "getSessionDesc: null"}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        log.clear();
        EXPECT_EQ(sessions->createSession(1, row.type, row.topicName, row.business, false), -4);
        Strings expected = row.lines;
        expected.insert(expected.begin(), std::string("createSession:") + row.topicName +
                                                  ";in_bussiness:" + row.business);
        EXPECT_EQ(managerLog(), expected);
    }
    EXPECT_TRUE(changes().empty());
    EXPECT_EQ(sessions->makeSessionId(), 1);  // no id was used up
    sessions->removeSession(1);
}

TEST_F(SessionManagerTest, RemovedConsumerLeavesItsTopicAndItsId) {
    int const id = join(1, CONSUMER);
    EXPECT_EQ(sessions->removeSession(static_cast<uint16_t>(id)), 1U);
    EXPECT_EQ(session(id), nullptr);
    EXPECT_FALSE(routed(id));
    EXPECT_EQ(sessions->removeSession(static_cast<uint16_t>(id)), 0U);
    EXPECT_EQ(join(2, CONSUMER), id);
    EXPECT_TRUE(changes().empty());
}

TEST_F(SessionManagerTest, RemovedProviderIsAnnouncedAndStaysInItsTopic) {
    int const id = join(1, PROVIDER);
    EXPECT_EQ(sessions->removeSession(static_cast<uint16_t>(id)), 1U);
    EXPECT_EQ(changes(), (Strings{"+test/test", "-test/test"}));
    EXPECT_EQ(session(id), nullptr);
    EXPECT_TRUE(routed(id));
    topic->removeSession(static_cast<uint16_t>(id));
}

TEST_F(SessionManagerTest, RemovalByClientTakesAllOfItAndNothingElse) {
    int const ids[] = {join(1, CONSUMER), join(1, PROVIDER), join(1, CONSUMER)};
    int const others[] = {join(2, CONSUMER), join(2, PROVIDER)};
    callback->clear();
    log.clear();
    EXPECT_EQ(sessions->removeSessionByClient(1), 0);
    for (int const id : ids) {
        EXPECT_EQ(session(id), nullptr);
        EXPECT_FALSE(routed(id));
    }
    for (int const id : others)
        EXPECT_TRUE(routed(id));
    EXPECT_EQ(changes(), Strings{"-test/test"});
    EXPECT_EQ(managerLog(), (Strings{"remove session done :1", "remove providerSessions done:1"}));
    EXPECT_EQ(join(3, CONSUMER), ids[0]);
}

TEST_F(SessionManagerTest, LowestFreeIdIsHandedOutWhateverTheNumber) {
    for (int id = 1; id <= 65534; ++id)
        ASSERT_EQ(sessions->makeSessionId(), id);
    EXPECT_EQ(sessions->makeSessionId(), -1);
    EXPECT_EQ(join(1, CONSUMER), -4);
    EXPECT_EQ(managerLog().back(), "createSession:-4; topic:test");
    for (uint16_t const freed : Ids{500, 2, 65534})
        sessions->removeSession(freed);
    sessions->removeSession(2);  // is free already
    for (int const id : {2, 500, 65534, -1})
        EXPECT_EQ(sessions->makeSessionId(), id);
    for (int id = 1; id <= 65534; ++id)
        sessions->removeSession(static_cast<uint16_t>(id));
    EXPECT_EQ(sessions->makeSessionId(), 1);
    sessions->removeSession(1);
}

TEST_F(SessionManagerTest, NewProviderIsKnownButNotRoutedWhenItIsAnnounced) {
    bool known = false;
    bool routedYet = true;
    callback->onBusinessChange([&](auto const&) {
        known = session(1) != nullptr;
        routedYet = routed(1);
    });
    EXPECT_EQ(join(1, PROVIDER), 1);
    callback->onBusinessChange(nullptr);
    EXPECT_TRUE(known);
    EXPECT_FALSE(routedYet);
    EXPECT_TRUE(routed(1));
}

TEST_F(SessionManagerTest, ProviderAnswersFromInsideItsDelivery) {
    int const consumer = join(1, CONSUMER);
    int const provider = join(2, PROVIDER);
    callback->onReceive([&](auto const& delivery) {
        if (delivery.sessionId != static_cast<uint32_t>(provider)) return;
        auto const& asked = *delivery.frame;
        session(provider)->send(delivery.local, frame(asked.msgId, 3, asked.reply), 1);
    });
    session(consumer)->send(true, frame(5, 2, static_cast<uint16_t>(consumer)), 1);
    auto const deliveries = callback->deliveries();
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[1].clientId, 1U);
    EXPECT_EQ(deliveries[1].frame->msgId, 5);

    peer.send(request(8));
    clock.settle();
    ASSERT_EQ(left(), std::vector<int>{8});
    EXPECT_EQ(wire(false)[0].msgType, 3);
}

TEST_F(SessionManagerTest, ClientMayBeRemovedInsideItsOwnDelivery) {
    int const provider = join(1, PROVIDER);
    callback->onReceive([&](auto const& delivery) {
        sessions->removeSessionByClient(delivery.clientId);
        vesk->removeTopic("test");
    });
    peer.send(request(1));
    peer.send(request(2));
    EXPECT_EQ(callback->deliveries().size(), 1U);
    EXPECT_EQ(session(provider), nullptr);
    EXPECT_EQ(queue->owedAcks(), 2U);
}

}  // namespace
}  // namespace vesk
