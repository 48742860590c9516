#include "support/VeskTest.h"

#include <set>

namespace vesk {
namespace {

class SessionTest : public VeskTest {
protected:
    SessionTest() {
        vesk->createTopic("test", false);
        topic = vesk->getTopic(2);
        callback->clear();
        log.clear();
    }

    std::shared_ptr<VeskSession> session(int id) const {
        return sessions->getSession(static_cast<uint16_t>(id));
    }

    size_t remove(int id) { return sessions->removeSession(static_cast<uint16_t>(id)); }

    /** Whether a reply addressed to this session is delivered. */
    bool routed(int id) {
        size_t const before = callback->deliveries().size();
        topic->receive(false, frame(1, 3, static_cast<uint16_t>(id)));
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

TEST_F(SessionTest, DeliveryCarriesClientThenSessionAndTheVeryFrame) {
    VeskSession lone(7, true, 2, 0x12345678, 1, 2, "name");  // its topic is not there
    EXPECT_EQ(log.messages("VeskSession"), Strings{"create:7,topic:1,bussiness:2"});
    auto const sent = frame(1);
    lone.receive(true, sent);
    lone.receive(false, sent);
    lone.receive(true, nullptr);
    auto const deliveries = callback->deliveries();
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[0].clientId, 0x12345678U);
    EXPECT_EQ(deliveries[0].sessionId, 7U);
    EXPECT_EQ(deliveries[0].frame, sent);
    EXPECT_TRUE(deliveries[0].local);
    EXPECT_FALSE(deliveries[1].local);
}

TEST_F(SessionTest, TopicIsLookedUpOnceAndKept) {
    VeskSession without(7, false, 1, 40, 1, 1, "");
    vesk->createTopic("virtualcomm", false);
    log.clear();
    without.send(false, frame(1), 1);
    without.send(true, frame(1), 1);
    EXPECT_EQ(without.getTopic(), nullptr);
    EXPECT_TRUE(log.lines().empty());

    VeskSession with(8, false, 1, 40, 2, 1, "");
    vesk->removeTopic("test");
    EXPECT_EQ(with.getTopic(), topic);
    with.send(false, frame(3), 9);
    with.send(false, nullptr, 1);
    clock.settle();
    EXPECT_EQ(left(), std::vector<int>{3});
}

TEST_F(SessionTest, ProviderIsAnnouncedOnceAndFoundAgain) {
    int const id = join(1, PROVIDER);
    EXPECT_EQ(managerLog(),
              (Strings{"createSession:test;in_bussiness:test", "getSessionDesc:4; topic:test",
                       "createSession:" + std::to_string(id) + "; topic:test"}));
    EXPECT_EQ(join(1, PROVIDER), id);
    EXPECT_EQ(managerLog().back(), "provider has exist:" + std::to_string(id));
    EXPECT_EQ(changes(), Strings{"+test/test"});
    ASSERT_NE(session(id), nullptr);
    EXPECT_EQ(session(id)->clientId(), 1U);
    EXPECT_EQ(session(id)->type(), PROVIDER);
    EXPECT_TRUE(routed(id));
}

TEST_F(SessionTest, EveryKeyOfAProviderTellsItApart) {
    vesk->createTopic("virtualcomm", false);
    auto const create = [&](int client, char const* topicName, char const* business, bool flag) {
        return sessions->createSession(client, PROVIDER, topicName, business, flag);
    };
    std::set<int> const ids{create(1, "test", "test", false), create(2, "test", "test", false),
                            create(1, "test", "test", true), create(1, "virtualcomm", "vm", true),
                            create(1, "virtualcomm", "cell1", true)};
    EXPECT_EQ(ids.size(), 5U);
    EXPECT_EQ(changes().size(), 5U);
}

TEST_F(SessionTest, WhatCannotBeJoinedFailsAndSaysSo) {
    std::string const null = "getSessionDesc: null";
    struct {
        int type;
        std::string topicName, business;
        Strings lines;
    } const rows[] = {
            {0, "test", "test", {"createSession:-4; topic:test"}},
            {3, "test", "test", {"createSession:-4; topic:test"}},
            {1, "", "test", {"getSessionDesc:0; topic:", null}},
            {2, "none", "test", {"getSessionDesc:4; topic:none", null}},
            {2, "virtualcomm", "cell0", {"getSessionDesc:11; topic:virtualcomm", null}},
            {1, "test", "cell0", {"getSessionDesc:4; topic:test", null}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows);
        log.clear();
        EXPECT_EQ(sessions->createSession(1, row.type, row.topicName, row.business, false), -4);
        Strings expected{"createSession:" + row.topicName + ";in_bussiness:" + row.business};
        expected.insert(expected.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(managerLog(), expected);
    }
    EXPECT_TRUE(changes().empty());
    EXPECT_EQ(join(1, CONSUMER), 1);  // no id was used up
}

TEST_F(SessionTest, ConsumersAreNeitherSharedNorAnnouncedAndLeaveNothingBehind) {
    int const first = join(1, CONSUMER);
    int const second = join(1, CONSUMER);
    EXPECT_EQ(second, first + 1);
    EXPECT_TRUE(routed(first) && routed(second));
    EXPECT_EQ(remove(first), 1U);
    EXPECT_EQ(session(first), nullptr);
    EXPECT_FALSE(routed(first));
    EXPECT_EQ(remove(first), 0U);
    EXPECT_EQ(join(2, CONSUMER), first);
    EXPECT_TRUE(changes().empty());
}

TEST_F(SessionTest, RemovedProviderIsAnnouncedAndStaysInItsTopic) {
    int const id = join(1, PROVIDER);
    EXPECT_EQ(remove(id), 1U);
    EXPECT_EQ(changes(), (Strings{"+test/test", "-test/test"}));
    EXPECT_EQ(session(id), nullptr);
    EXPECT_TRUE(routed(id));
    topic->removeSession(static_cast<uint16_t>(id));
}

TEST_F(SessionTest, RemovalByClientTakesAllOfItAndNothingElse) {
    int const ids[] = {join(1, CONSUMER), join(1, PROVIDER), join(1, CONSUMER)};
    int const others[] = {join(2, CONSUMER), join(2, PROVIDER)};
    callback->clear();
    log.clear();
    EXPECT_EQ(sessions->removeSessionByClient(1), 0);
    for (int const id : ids)
        EXPECT_FALSE(session(id) || routed(id));
    for (int const id : others)
        EXPECT_TRUE(session(id) && routed(id));
    EXPECT_EQ(changes(), Strings{"-test/test"});
    EXPECT_EQ(managerLog(), (Strings{"remove session done :1", "remove providerSessions done:1"}));
    EXPECT_EQ(join(3, CONSUMER), ids[0]);
}

TEST_F(SessionTest, LowestFreeIdIsHandedOutWhateverTheNumber) {
    for (int id = 1; id <= 65534; ++id)
        ASSERT_EQ(sessions->makeSessionId(), id);
    EXPECT_EQ(sessions->makeSessionId(), -1);
    EXPECT_EQ(join(1, CONSUMER), -4);
    EXPECT_EQ(managerLog().back(), "createSession:-4; topic:test");
    for (int const freed : {500, 2, 65534, 2})
        remove(freed);
    for (int const id : {2, 500, 65534, -1})
        EXPECT_EQ(sessions->makeSessionId(), id);
    for (int id = 1; id <= 65534; ++id)
        remove(id);
    EXPECT_EQ(join(1, CONSUMER), 1);
}

TEST_F(SessionTest, NewProviderIsKnownButNotRoutedWhenItIsAnnounced) {
    Strings seen;
    callback->onBusinessChange([&](auto const&) {
        if (session(1)) seen.push_back("known");
        if (routed(1)) seen.push_back("routed");
    });
    EXPECT_EQ(join(1, PROVIDER), 1);
    callback->onBusinessChange(nullptr);
    EXPECT_EQ(seen, Strings{"known"});
    EXPECT_TRUE(routed(1));
}

TEST_F(SessionTest, ProviderAnswersFromInsideItsDelivery) {
    int const consumer = join(1, CONSUMER);
    int const provider = join(2, PROVIDER);
    callback->onReceive([&](auto const& delivery) {
        if (delivery.clientId != 2) return;
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

TEST_F(SessionTest, ClientAndTopicMayBeRemovedInsideADelivery) {
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
