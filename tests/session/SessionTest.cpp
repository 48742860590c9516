#include "support/VeskTest.h"

#include <quillex/Log.h>

#include <functional>
#include <future>
#include <thread>

namespace vesk {
namespace {

constexpr uint32_t FAR_CLIENT = 65537;  // client 1 to whom looks at 16 bits

std::string gLines;                // the library's, and what the host was told, in order
std::string gAwaited;              // the line at which
std::function<void()> gMeanwhile;  // another thread does this, once

class SessionTest : public VeskTest {
protected:
    SessionTest() {
        callback->onBusinessChange([this](auto const& change) {
            std::string const name = change.topicName + "/" + change.businessName;
            quillex::Log::d("host", (change.added ? "+" + name : "-" + name).c_str());
            gLines += state() + '|';
        });
        reset();
        quillex::Log::setSink([](char const* tag, char const* message) {
            std::string const who(tag);
            if (who == "VeskQueue") return;
            gLines += (who == "VeskSessionManager" ? "" : who + " ") + message + '|';
            if (message != gAwaited) return;
            if (auto const action = std::exchange(gMeanwhile, nullptr)) std::thread(action).join();
        });
    }

    ~SessionTest() override { quillex::Log::setSink(nullptr); }

    void reset() {
        byClient(1), byClient(2);
        vesk->removeTopic("test");
        vesk->createTopic("test", false);
        topic = vesk->getTopic(2);
        gLines = "";
    }

    std::shared_ptr<VeskSession> session(uint16_t id) const { return sessions->getSession(id); }
    int remove(int id) { return int(sessions->removeSession(static_cast<uint16_t>(id))); }
    int byClient(uint32_t id) { return sessions->removeSessionByClient(id); }
    int nextId() {
        int const id = sessions->makeSessionId();
        remove(id);
        return id;
    }

    /** The client that gets a reply to this session, or a request; "-" for none. */
    std::string receiver(uint16_t id, uint8_t type = 3) {
        callback->clear();
        topic->receive(false, frame(1, type, id));
        auto const all = callback->deliveries();
        return all.size() != 1 ? "-" : std::to_string(all[0].clientId);
    }

    /**
     * "1c2" for consumer 1 of client 2, "1p2" for a provider, "1-" for an id without a session;
     * ">3" where a reply reaches client 3 and not the session's; at the end who gets a request.
     */
    std::string state() {
        std::string text;
        for (uint16_t id = 1; id <= 4; ++id) {
            auto const known = session(id);
            std::string const client = known ? std::to_string(known->clientId()) : "";
            std::string const reply = receiver(id);
            if (!known && reply == "-") continue;
            text += std::to_string(id) + "-cp"[known ? known->type() : 0] + client +
                    (reply == client ? " " : '>' + reply + ' ');
        }
        return text + '?' + receiver(0, 2);
    }

    std::shared_ptr<VeskTopic> topic;
};

std::string const ASKED = "createSession:test;in_bussiness:test|getSessionDesc:4; topic:test|";

std::string created(std::string const& id, std::string const& told = "") {
    return id + '|' + ASKED + "VeskSession create:" + id + ",topic:2,bussiness:1|" +
           (told.empty() ? "" : "host +test/test|" + told + '|') + "[2] addSession:" + id +
           ";business:1|createSession:" + id + "; topic:test|";
}

// What it returned and wrote; the state after it, and the id that is next.
TEST_F(SessionTest, EachCallLogsTellsAndLeavesWhatIsDocumented) {
    struct {
        std::function<int()> call;
        std::string result, after;
    } const steps[] = {
            {[&] { return join(1, CONSUMER); }, created("1"), "1c1 ?- 2"},
            {[&] { return join(1, PROVIDER); }, created("2", "1c1 2p1>- ?-"), "1c1 2p1 ?1 3"},
            {[&] { return join(1, PROVIDER); }, "2|" + ASKED + "provider has exist:2|",
             "1c1 2p1 ?1 3"},
            {[&] { return join(FAR_CLIENT, CONSUMER); }, created("3"), "1c1 2p1 3c65537 ?1 4"},
            {[&] { return remove(2); }, "1|host -test/test|1c1 2p1 3c65537 ?1|",
             "1c1 2->1 3c65537 ?1 2"},
            {[&] { return remove(2) + remove(0) + remove(65535); }, "0|", "1c1 2->1 3c65537 ?1 2"},
            {[&] { return remove(1); }, "1|[2] mProviders:1mConsumers:2|", "2->1 3c65537 ?1 1"},
            {[&] { return sessions->makeSessionId() + byClient(0); },
             "1|remove session done :1|remove providerSessions done:0|", "2->1 3c65537 ?1 2"},
            {[&] { return join(1, PROVIDER); }, created("2", "2p1 3c65537 ?1"), "2p1 3c65537 ?1 4"},
            {[&] { return byClient(1); },
             "0|remove session done :1|[2] mProviders:0mConsumers:1|"
             "host -test/test|2p1>- 3c65537 ?-|remove providerSessions done:0|",
             "3c65537 ?- 2"},
            {[&] { return byClient(FAR_CLIENT) + remove(1); },
             "0|[2] mProviders:0mConsumers:0|remove session done :0|"
             "remove providerSessions done:0|",
             "?- 1"},
    };
    for (auto const& step : steps) {
        int const result = step.call();
        EXPECT_EQ(std::to_string(result) + '|' + std::exchange(gLines, ""), step.result);
        EXPECT_EQ(state() + ' ' + std::to_string(nextId()), step.after) << step.result;
    }
}

TEST_F(SessionTest, OtherCallsMayComeBetweenTheStepsOfOne) {
    std::string const MADE = "create:2,topic:2,bussiness:1", ENTERS = "addSession:2;business:1";
    std::string const NEW = "+test/test", GONE = "-test/test";
    struct {
        int type;
        std::string line;
        std::function<int()> action;
        int inner, outer;
        std::string after;
    } const steps[] = {
            {PROVIDER, MADE, [&] { return vesk->removeTopic("test"); }, 2, -4, "?-"},
            {CONSUMER, MADE, [&] { return remove(2); }, 0, 2, "2c1 ?-"},
            {CONSUMER, MADE, [&] { return 9 * join(1, 2) + join(1, 1); }, 31, 2, "2c1 3p1 4c1 ?1"},
            {PROVIDER, NEW, [&] { return remove(2); }, 1, 2, "2->1 ?1"},
            {PROVIDER, NEW, [&] { return 10 * remove(2) + join(2, 1); }, 12, 2, "2c2 ?1"},
            {PROVIDER, NEW, [&] { return 10 * remove(2) + join(2, 2); }, 12, 2, "2p2 ?2"},
            {PROVIDER, NEW, [&] { return byClient(1); }, 0, 2, "?-"},
            {CONSUMER, ENTERS, [&] { return remove(2); }, 1, 2, "?-"},
            {PROVIDER, ENTERS, [&] { return byClient(1) + join(2, 2); }, 2, 2, "2p2 ?2"},
            {CONSUMER, ENTERS, [&] { return 10 * remove(2) + join(2, 1); }, 12, 2, "2c2 ?-"},
            {PROVIDER, GONE, [&] { return join(2, PROVIDER); }, 2, 1, "2p2 ?2"},
            {PROVIDER, GONE, [&] { return join(2, 1) + session(2)->type(); }, 4, 1, "2c2 ?1"},
            {PROVIDER, GONE, [&] { return join(1, PROVIDER); }, 2, 1, "2->1 ?1"},
            {PROVIDER, GONE, [&] { return 10 * remove(2) + !session(2); }, 11, 0, "2->1 ?1"},
            {PROVIDER, GONE, [&] { return join(2, 1) + byClient(1); }, 2, 0, "2c2 ?-"},
    };
    EXPECT_EQ(sessions->makeSessionId(), 1);
    for (auto const& step : steps) {
        SCOPED_TRACE(&step - steps);
        int inner = -1;
        gAwaited = step.line;
        gMeanwhile = [&] { inner = step.action(); };
        int const id = join(1, step.type);
        std::string const end = "createSession:" + std::to_string(id) + "; topic:test|";
        EXPECT_EQ(gLines.rfind(end) + end.size(), gLines.size());
        EXPECT_EQ(step.line == GONE ? remove(2) : id, step.outer);
        EXPECT_EQ(inner, step.inner);
        EXPECT_EQ(state(), step.after);
        int free = 2;
        while (session(uint16_t(free)))
            ++free;
        EXPECT_EQ(nextId(), free);
        EXPECT_EQ(gLines.find(GONE), gLines.rfind(GONE));  // announced once at most
        reset();
        EXPECT_EQ(nextId(), 2);
    }
    gAwaited = "create.";
    gMeanwhile = [&] { vesk->createTopic("test", false); };  // the other thread is quicker
    vesk->removeTopic("test");
    EXPECT_EQ(vesk->createTopic("test", false), 0);
    gAwaited = "mProviders:0mConsumers:0";
    gMeanwhile = [&] { receiver(1); };
    topic->removeSession(1);
    remove(1);
}

TEST_F(SessionTest, WhatCannotBeJoinedFailsWithItsLines) {
    std::string const in = ";in_bussiness:", noType = "|createSession:-4; topic:test|";
    std::tuple<int, std::string, std::string> const calls[] = {
            {0, "test", noType},
            {65537, "test", noType},
            {-65534, "test", noType},
            {1, "", "|getSessionDesc:0; topic:|getSessionDesc: null|"},
            {2, "test", "|getSessionDesc:4; topic:test|getSessionDesc: null|"},
            {2, "virtualcomm", "|getSessionDesc:11; topic:virtualcomm|getSessionDesc: null|"}};
    for (auto const& [type, name, lines] : calls) {
        EXPECT_EQ(sessions->createSession(1, type, name, "vm", false), -4);
        // NOLINTNEXTLINE(performance-inefficient-string-concatenation)
        EXPECT_EQ(std::exchange(gLines, ""), ("createSession:" + name) + (in + "vm") + lines);
    }
    EXPECT_EQ(nextId(), 1);
}

TEST_F(SessionTest, ProvidersOfAClientGoOneByOneWhoeverRemovesThem) {
    vesk->createTopic("virtualcomm", false);
    for (int const client : {-1, int(FAR_CLIENT), 1, int(2 * FAR_CLIENT - 1)})
        join(client, PROVIDER);
    EXPECT_EQ(receiver(1), "4294967295");
    for (int again = 0; again < 2; ++again) {
        int id = 4;
        for (char const* const business : {"vm", "ril0"}) {
            int const made = sessions->createSession(1, PROVIDER, "virtualcomm", business, false);
            EXPECT_EQ(made, ++id);
            EXPECT_LT(gLines.find(std::string("host +virtualcomm/") + business), gLines.size());
        }
    }
    EXPECT_EQ(sessions->createSession(1, PROVIDER, "virtualcomm", "vm", true), 7);
    EXPECT_TRUE(session(7)->flag() && !session(5)->flag());
    gLines = "";
    int gone = 0;
    callback->onBusinessChange([&](auto const&) { ++gone, remove(5), remove(6); });
    byClient(1);
    size_t const left = gLines.find("mProviders");  // the topic; whom the callback removes stays
    EXPECT_EQ(gLines.find("mProviders", left + 20), gLines.rfind("mProviders"));
    Strings told;
    for (auto const& change : callback->businessChanges())
        told.push_back((change.added ? "+" : "-") + change.topicName + '/' + change.businessName);
    std::sort(told.begin(), told.end());  // by client they go in no order
    EXPECT_EQ(told,
              (Strings{"-test/test", "-virtualcomm/ril0", "-virtualcomm/vm", "-virtualcomm/vm"}));
    EXPECT_TRUE(gone == 4 && session(1) && session(2) && !session(3) && nextId() == 3);
    callback->onBusinessChange([&](auto const&) { ++gone, byClient(FAR_CLIENT); });
    for (uint32_t const client : {FAR_CLIENT, 2 * FAR_CLIENT - 1, 0xFFFFFFFF})
        byClient(client);
    EXPECT_EQ(gone, 7);
}

TEST_F(SessionTest, LowestFreeIdIsHandedOutWhateverTheNumber) {
    for (int id = 1; id <= 65534; ++id)
        ASSERT_EQ(sessions->makeSessionId(), id);
    EXPECT_EQ(join(1, PROVIDER), -4);
    EXPECT_EQ(gLines, ASKED + "createSession:-4; topic:test|");
    remove(60000);
    EXPECT_EQ(join(1, CONSUMER), 60000);
    EXPECT_TRUE(receiver(60000) == "1" && callback->deliveries()[0].sessionId == 60000);
    for (int const freed : {60000, 2, 65534, 2})
        remove(freed);
    for (int const id : {2, 60000, 65534, -1})
        EXPECT_EQ(sessions->makeSessionId(), id);
    for (int id = 1; id <= 65534; ++id)
        remove(id);
}

TEST_F(SessionTest, WhatAHostEnteredNeedsNoTopicAndGoesWithItsIdOrThatTopic) {
    int released = 0;
    auto const gone = [&](VeskSession* session) {
        delete session;
        released += vesk->hasTopic(2) ? 1 : 10;  // no lock may be held
    };
    auto const consumer = static_cast<uint16_t>(join(1, CONSUMER));
    std::shared_ptr<VeskSession> own;
    for (uint16_t const id : {consumer, uint16_t{5}}) {
        own = {new VeskSession(id, false, PROVIDER, 0x12345678, 1, 2, "name"), gone};
        topic->addSession(id, true, own);
    }
    vesk->createTopic("virtualcomm", false);
    EXPECT_TRUE(!own->getTopic() && own->name() == "name");  // its topic was looked up once
    own->send(false, frame(1), 1);
    own->receive(false, nullptr);
    own->receive(true, frame(1));
    own = nullptr;
    auto const [client, id, local, delivered] = callback->deliveries().at(0);
    EXPECT_TRUE(client == 0x12345678 && id == 5 && local && delivered);
    topic->addSession(consumer, false, session(uint16_t(join(1, CONSUMER))));
    EXPECT_EQ(remove(consumer), 1);
    EXPECT_LT(gLines.find("[2] mProviders:1mConsumers:2|"), gLines.size());
    EXPECT_TRUE(receiver(consumer) == "-" && released == 1);
    topic = nullptr;
    byClient(1);
    vesk->removeTopic("test");
    EXPECT_EQ(released, 11);
}

TEST_F(SessionTest, ProviderThatAnotherThreadIsMakingIsWaitedFor) {
    quillex::Log::setSink([](char const*, char const* message) {  // what two threads may share
        if (message != gAwaited) return;
        if (auto const action = std::exchange(gMeanwhile, nullptr)) std::thread(action).join();
    });
    for (bool const topicGoes : {false, true}) {
        gAwaited = "";
        reset();
        std::future<int> other;
        gAwaited = "create:1,topic:2,bussiness:1";
        gMeanwhile = [&] {
            other = std::async(std::launch::async, [this] { return join(1, PROVIDER); });
            for (bool const another : {true, false}) {
                auto const state = other.wait_for(std::chrono::milliseconds(30));
                EXPECT_NE(state, std::future_status::ready);
                if (another) join(2, CONSUMER);  // it is not this one that it waits for
            }
            if (topicGoes) vesk->removeTopic("test");
        };
        EXPECT_EQ(join(1, PROVIDER), topicGoes ? -4 : 1);
        EXPECT_EQ(other.get(), topicGoes ? -4 : 1);
    }
}

}  // namespace
}  // namespace vesk
