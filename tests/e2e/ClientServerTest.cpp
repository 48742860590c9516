// The local clients of a host in this process: who waits, who has to go, and when. The times that
// clients have are short ones of the test's.

#include <array>

#include <vesk/Vesk.h>

#include "HostCallback.h"
#include "Unanswered.h"
#include "support/HostScene.h"

namespace vesk::e2e {

using namespace std::chrono_literals;
using hostkit::FlowLimits;

namespace {

constexpr auto FOR_EVER = 1h;

/** The frames of "test" are local, those of "virtualcomm" are the peer's, nobody is the peer. */
class ClientServerTest : public HostScene {
protected:
    ~ClientServerTest() override {
        if (mServer) stopServing();
    }

    void stopServing() {
        mCallback->detach();
        mServer.reset();
        for (char const* const topic : {"test", "virtualcomm"})
            Vesk::getInstance()->removeTopic(topic);
        mHolds.clear();
        mReports.clear();
    }

    void serve(FlowLimits const& limits) {
        hostkit::ClientServer::Services services;
        services.obstacle = [] { return hostkit::SendGate::Obstacle::NONE; };
        services.holdChannel = [this](bool hold) { mHolds.push_back(hold); };
        services.addCounters = [](client::Counters&) {};
        services.report = [this](std::string const& line) { mReports.push_back(line); };
        mServer.emplace(mIo, path("host"), std::set<std::string>{"test"}, limits, services);
        mCallback = new hostkit::HostCallback(mChannel, *mServer, mTraffic, mTap);
        Vesk::getInstance()->init(mCallback);
        Vesk::getInstance()->createTopic("test", true);
        Vesk::getInstance()->createTopic("virtualcomm", false);
    }

    Line& joinAs(int role, char const* topic = "test", char const* business = "test") {
        Line& line = connect();
        line.say(joining(role, topic, business));
        awaitHeard(line, 1);
        return line;
    }

    /** Something long comes for the client, from a peer or another client. */
    void deliver(uint32_t clientId, uint8_t type) {
        auto const frame = VeskFrame::obtainFrame(true);
        frame->msgType = type;
        frame->data.resize(60000);
        mServer->deliver(clientId, 1, *frame);
    }

    /** The clients of which this was said when they went, in that order. */
    std::vector<int> gone(std::string const& why) const {
        std::vector<int> ids;
        for (std::string const& line : mReports) {
            if (line.find(" is gone: " + why) < line.size())
                ids.push_back(std::stoi(line.substr(7)));
        }
        return ids;
    }

    hostkit::Channel mChannel{mIo,
                              hostkit::Endpoint::parse("dev:none"),
                              false,
                              *Vesk::getInstance()->getConfig(),
                              {}};
    hostkit::TrafficCounters mTraffic;
    hostkit::Tap mTap;
    std::optional<hostkit::ClientServer> mServer;
    android::sp<hostkit::HostCallback> mCallback;
    std::vector<bool> mHolds;
    std::vector<std::string> mReports;
};

}  // namespace

TEST_F(ClientServerTest, ASlowProviderStopsOthersForItsPatienceAndGoesOnce) {
    FlowLimits limits(FlowLimits::MIN_MEMORY);
    limits.patience = 250ms;
    serve(limits);
    for (auto const& [topic, business] : {std::pair{"virtualcomm", "vm"}, {"test", "test"}})
        joinAs(PROVIDER, topic, business).stop();
    Line& consumer = joinAs(CONSUMER);
    auto const begun = std::chrono::steady_clock::now();
    auto const fill = [&](uint32_t provider) {
        for (size_t bytes = 0; bytes < limits.providerHigh + 60000; bytes += 60000)
            deliver(provider, REQUEST);
    };
    fill(2);
    EXPECT_EQ(mHolds, std::vector<bool>()) << "the peer sends it nothing";
    fill(1);
    EXPECT_EQ(mHolds, std::vector<bool>{true});
    consumer.say(data(Type::REQUEST, 0, 1, "waits"));
    consumer.say(client::encodeMessage(Type::QUERY));  // waits behind it
    awaitHeard(consumer, 2);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, limits.patience);
    EXPECT_GT(client::Counters::decode({consumer.heard()[1].begin() + 5, consumer.heard()[1].end()})
                      ->evicted,
              0U);
    await("the end of both", [&] { return gone("it reads too slowly: ").size() == 2; });
    EXPECT_EQ(mHolds, (std::vector{true, false}));

    Line& provider = joinAs(PROVIDER);
    consumer.say(data(Type::REQUEST, 0, 2, "goes on"));
    awaitHeard(provider, data(Type::REQUEST, consumer.number(0), 2, "goes on"));
    EXPECT_EQ(mHolds.size(), 2U);
}

TEST_F(ClientServerTest, WhoDoesNotEndAMessageGoesWhenOthersWaitToBeginOne) {
    FlowLimits limits;
    limits.shortagePatience = 30ms;
    serve(limits);
    Line& consumer = joinAs(CONSUMER);
    Bytes const reply = data(Type::REPLY, consumer.number(0), 1, std::string(60000, 'x'));
    auto const half = reply.begin() + 30000;
    std::vector<Line*> providers(32);
    for (Line*& provider : providers)
        provider = &joinAs(PROVIDER);
    for (int i = 0; i < 31; ++i)  // as many as docs/protocol.md says
        providers[size_t(i)]->say({reply.begin(), half});
    mIo.run_for(2 * limits.shortagePatience);
    EXPECT_EQ(gone("").size(), 0U) << "nobody waits for them";
    providers[31]->say({reply.begin(), half});
    await("their end", [&] { return gone("it does not end its message").size() >= 31; });
    providers[31]->say({half, reply.end()});
    awaitHeard(consumer, reply);
    EXPECT_EQ(gone("").size(), 31U);
}

TEST_F(ClientServerTest, WhenMemoryIsShortThoseGoForWhomSomethingHasWaitedLongest) {
    // Of 24 MiB that all may have, 18 make it short. What is too much goes at once, the rest in
    // time.
    for (auto const& [patience, messages] :
         {std::pair{std::chrono::milliseconds(FOR_EVER), 65U}, {30ms, 48U}}) {
        FlowLimits limits;
        limits.shortagePatience = patience;
        serve(limits);
        std::vector<Line*> consumers(8);
        for (Line*& consumer : consumers)
            consumer = &joinAs(CONSUMER);
        for (Line* const consumer : consumers)
            consumer->stop();
        std::vector<int> const order{5, 6, 7, 8, 1, 2, 3, 4};
        for (unsigned message = 0; message < messages; ++message) {
            for (int const id : order)
                deliver(static_cast<uint32_t>(id), REPLY);
        }
        EXPECT_EQ(mHolds, std::vector<bool>{true}) << "nothing more is read";
        await("the first to go", [&] { return !gone("").empty(); });
        for (Line* const consumer : consumers)
            consumer->go();
        await("room", [&] { return mHolds.size() == 2; });
        std::vector<int> const victims = gone("it reads too slowly while memory is short");
        EXPECT_EQ(victims, std::vector(order.begin(), order.begin() + ptrdiff_t(victims.size())));
        EXPECT_LE(victims.size(), 3U);
        for (size_t i = victims.size(); i < order.size(); ++i)
            awaitHeard(*consumers[size_t(order[i] - 1)], 1 + messages);
        EXPECT_EQ(gone(""), victims) << "who stays loses nothing";
        stopServing();
    }
}

TEST(UnansweredTest, ARequestCountsUntilItsReplyALaterOneOrTheEndOfPatience) {
    FlowLimits limits;
    limits.patience = FOR_EVER;
    limits.shortPatience = 2 * FOR_EVER;
    size_t total = 1000;
    {
        hostkit::Unanswered unanswered(total, limits);
        auto const ask = [&](uint16_t id) { unanswered.asked(id, 36); };  // 100 bytes with its head
        for (uint16_t const id : std::array<uint16_t, 5>{1, 2, 3, 4, 2})
            ask(id);
        EXPECT_EQ(total, 1500U);
        unanswered.answered(9, 0);
        EXPECT_EQ(total, 1500U) << "nobody asked that";
        unanswered.answered(2, 0);
        EXPECT_EQ(total, 1300U) << "and the one before it";
        unanswered.expire();
        EXPECT_EQ(total, 1300U);
        EXPECT_LE(unanswered.expiry(), hostkit::Unanswered::Clock::now() + FOR_EVER);
        limits.patience = 0h;
        unanswered.expire();
        EXPECT_EQ(total, 1200U) << "a business that does not answer has its own time";
        EXPECT_GT(unanswered.expiry(), hostkit::Unanswered::Clock::now() + FOR_EVER);
        limits.shortPatience = 0h;
        unanswered.expire();
        EXPECT_EQ(total, 1000U);
        EXPECT_TRUE(unanswered.empty());
        ask(5);
    }
    EXPECT_EQ(total, 1000U);
}

TEST(UnansweredTest, AConsumerMayAskForMoreWithEachReply) {
    FlowLimits const limits;
    size_t total = 0;
    hostkit::Unanswered unanswered(total, limits);
    uint16_t id = 0;
    auto const askUntilFull = [&](size_t limit) {
        size_t asked = 0;
        for (; !unanswered.isFull(limit) && asked < 5000; ++asked)
            unanswered.asked(++id, 0);
        unanswered.answered(id, MAX_PAYLOAD_SIZE);
        return asked;
    };
    constexpr size_t MUCH = 1 << 30;
    EXPECT_EQ(askUntilFull(MUCH), 2U) << "of the longest replies";
    EXPECT_EQ(askUntilFull(MUCH), 2U);
    EXPECT_EQ(askUntilFull(MUCH), 3U);
    EXPECT_EQ(askUntilFull(0), 1U) << "one may always be asked";
    for (int i = 0; i < 100; ++i)
        unanswered.answered(0, 0);
    EXPECT_GT(askUntilFull(MUCH), 4000U) << "of short ones";
}

}  // namespace vesk::e2e
