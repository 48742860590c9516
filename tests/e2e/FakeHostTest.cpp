// The client library in this process, with a host that is in the test's hands.

#include <ctime>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include <vesk/client/Client.h>

#include "BackOff.h"
#include "support/Scene.h"

namespace vesk::e2e {

using namespace client;
using Outcome = Client::Outcome;
using Sent = Client::Sent;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class FakeHostTest : public Scene {
protected:
    Line& accept() { return Scene::accept(*mListener, Line::MESSAGES); }

    /** The client joins, or serves where it has a handler, and the host lets it in. */
    void join(Client& client, Line& line, Client::Handler const& handler = nullptr) {
        auto session = std::async(std::launch::async, [&] {
            return handler ? client.serve(mBusiness, handler) : client.join(mBusiness);
        });
        letIn(line, handler ? PROVIDER : CONSUMER);
        EXPECT_EQ(session.get(), 7U);
    }
    void letIn(Line& line, int role) {
        awaitHeard(line, joining(role));
        line.say(JoinedMessage{7}.encode());
    }

    /** Waits until the client's thread has read, after this was called, what it will read. */
    static void settle(Client& client) {
        for (int i = 0; i < 4; ++i) {
            std::promise<void> ran;
            client.post([&] { ran.set_value(); });
            ran.get_future().wait();
        }
    }

    // What callbacks write down and the test reads.
    void log(std::string const& text) {
        std::lock_guard<std::mutex> const lock(mMutex);
        mLog += text + ";";
    }
    std::string logged() {
        std::lock_guard<std::mutex> const lock(mMutex);
        return mLog;
    }
    void awaitLog(std::string const& text) {
        await(text, [&] { return logged() == text; });
    }
    Client::Done logEnd(char name) {
        return [this, name](Client::Reply const& reply) { log({name, "RTL"[int(reply.outcome)]}); };
    }
    Client::Options logging() {
        Client::Options options;
        options.onLost = [this](std::string const& why) { log(why); };
        options.onNotice = [this](std::string const& text) { log(text); };
        options.onBack = [this](uint16_t session) { log("back " + std::to_string(session)); };
        return options;
    }

    BusinessName const mBusiness{"test", "test"};
    std::string const mGone = "the host is gone: it closed the connection;";
    std::string const mStrange =
            "the host's messages are not understood; is it another version of vesk?;";
    std::optional<hostkit::UnixListener> mListener{std::in_place, mIo, path("host")};
    std::mutex mMutex;
    std::string mLog;
};

TEST_F(FakeHostTest, AnIdIsInUseUntilItsReplyHasComeOrNoneCan) {
    Client::Options options;
    options.reconnect = true;
    options.limit = std::chrono::milliseconds::max();
    std::atomic<int> ends[4]{};
    auto const done = [&](Client::Reply const& reply) { ++ends[int(reply.outcome)]; };
    Client client(path("host"), options);
    Line& line = accept();
    join(client, line);
    int count = 0;
    while (client.call({}, -1ms, done) == Sent::YES)
        ++count;
    EXPECT_EQ(count, 65536);
    EXPECT_EQ(client.call({}, 1s).get().outcome, Outcome::NOT_SENT);
    awaitHeard(line, 65537);
    std::set<uint16_t> ids;
    for (size_t i = 1; i <= 65536; ++i)
        ids.insert(line.number(i, 2));
    EXPECT_EQ(ids.size(), 65536U);
    await("their ends", [&] { return ends[int(Outcome::TIMED_OUT)] == 65536; });
    // The late reply makes room for one, and the reply to that one for the next.
    for (int replies = 0; replies < 3; ++replies) {
        line.say(data(Type::REPLY, 7, 65535, "x"));
        if (replies == 2) line.say(data(Type::REPLY, 7, 65535, "nobody awaits it"));
        settle(client);
        EXPECT_EQ(client.call({}, 60s, done), Sent::YES);
        EXPECT_EQ(ends[int(Outcome::REPLIED)], replies);
        awaitHeard(line, 65538U + unsigned(replies));
        EXPECT_EQ(line.number(65537U + unsigned(replies), 2), 65535);
    }
    EXPECT_EQ(client.call({}, 60s, done), Sent::NO_ID);
    line.close();
    letIn(accept(), CONSUMER);
    await("the client", [&] { return client.connected(); });
    EXPECT_EQ(ends[int(Outcome::LOST)], 1);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(client.call({}, 60s, done), Sent::YES);
}

TEST_F(FakeHostTest, RequestsLeaveInOrderWithinTheBacklogAndEndAsPromised) {
    Client::Options options;
    options.maxBacklog = size_t{2} * 10;
    auto owner = std::make_unique<Client>(path("host"), options);
    Client& client = *owner;
    Line& line = accept();
    join(client, line);
    std::string sent;
    client.post([&] {  // nothing leaves meanwhile
        for (char const payload : {'1', '2', '3', '4'})
            sent += "YNFI"[int(client.call({uint8_t(payload)}, 60s, logEnd(payload)))];
    });
    awaitHeard(line, 4);
    settle(client);
    EXPECT_EQ(sent, "YYYF");
    for (size_t i = 1; i <= 3; ++i)
        EXPECT_EQ(line.heard()[i].back(), '0' + i);
    line.say(data(Type::REPLY, 7, line.number(2, 2), "x"));
    awaitLog("2R;");
    client.call({}, std::chrono::milliseconds::min(), logEnd('5'));
    awaitLog("2R;5T;");
    client.call({}, 1ms, nullptr);  // nobody wants to know
    client.call({}, 1s, nullptr);
    client.call({}, 2ms, logEnd('6'));
    awaitLog("2R;5T;6T;");
    client.call(Bytes(65535), std::chrono::milliseconds::max(), logEnd('7'));
    client.query([&](auto const& counters) { log(counters ? "?" : "none"); });
    awaitHeard(line, 10);
    // What has not begun at the end never does, and what is outstanding is lost.
    std::promise<void> began, go;
    client.post([&] { began.set_value(), go.get_future().wait(); });
    began.get_future().wait();
    client.post([&] { log("never"); });
    std::thread ending([&] { owner.reset(); });
    await("the end", [&] { return !client.connected(); });
    go.set_value();
    ending.join();
    EXPECT_EQ(logged(), "2R;5T;6T;1L;3L;7L;none;");
}

TEST_F(FakeHostTest, QuestionsAreAnsweredInTheirOrderAndEndWithTheHost) {
    Client::Options options = logging();
    options.limit = 20ms;
    Client client(path("host"), options);
    auto const counted = [&](auto const& is) { log(is ? std::to_string(is->pending) : "none"); };
    auto const told = [&](auto const& text) { log(text ? *text : "none"); };
    Line& line = accept();
    EXPECT_THROW(client.query(), std::runtime_error);  // whose answer comes later
    client.post([&] {
        EXPECT_THROW(client.join(mBusiness), std::logic_error);
        EXPECT_THROW(client.serve(mBusiness, nullptr), std::logic_error);
        EXPECT_THROW(client.status(StatusFormat::TEXT), std::logic_error);
        EXPECT_THROW(client.untap(), std::logic_error);
        client.query(counted);
        client.status(StatusFormat::TEXT, told);
    });
    settle(client);
    client.query(counted);
    client.status(StatusFormat::JSON, told);
    client.query(counted);
    client.status(StatusFormat::TEXT, told);
    awaitHeard(line, 7);
    EXPECT_EQ(line.heard()[2], (Bytes{2, 0, 0, 0, 11, 1}));
    EXPECT_EQ(line.heard()[4], (Bytes{2, 0, 0, 0, 11, 2}));
    Counters counters;
    for (counters.pending = 1; counters.pending <= 2; ++counters.pending)
        line.say(counters.encode());
    line.say(encodeMessage(Type::STATUS_TEXT, "well"));
    line.say(encodeMessage(Type::COUNTERS, "too short"));
    line.say(encodeMessage(Type::STATUS_TEXT));
    awaitLog("2;well;none;;");
    line.close();
    awaitLog("2;well;none;;none;none;" + mGone);
    client.query(counted);
    client.status(StatusFormat::TEXT, told);
    EXPECT_EQ(logged(), "2;well;none;;none;none;" + mGone + "none;none;");
    EXPECT_THROW(client.join(mBusiness), std::runtime_error);
}

// What a host says, and what a client that watches makes of it.
TEST_F(FakeHostTest, AHostIsTakenAtItsWordOrLeft) {
    Client::Options options = logging();
    for (auto const& [said, expected] :
         {std::pair{ChangeMessage{true, "a", ""}.encode(Type::TOPIC), std::string("+a;")},
          {ChangeMessage{false, "b", "c"}.encode(Type::PROVIDER), "-b/c;"},
          {encodeMessage(Type::NOTICE, "hey"), "hey;"},
          {encodeMessage(Type::TOPIC), ""},
          {encodeMessage(Type::REPLY, "x"), ""},
          {encodeMessage(Type::REQUEST, "x"), ""},
          {data(Type::REQUEST, 1, 1, ""), ""},  // it serves nothing
          {JoinedMessage{7}.encode(), ""},
          {encodeMessage(static_cast<Type>(99), "of a newer host"), ""},
          {data(Type::REPLY, 1, 1, std::string(65535, 'x')), ""},
          {{5, 0, 1, 0}, mStrange},
          {Bytes(4), mStrange},
          {encodeMessage(Type::JOINED, "x"), mStrange},
          {encodeMessage(Type::TAPPED, "x"), mStrange},
          {encodeMessage(Type::SKIPPED, "x"), mStrange},
          {encodeMessage(Type::REFUSED, "no"), "the host refused: no;"},
          {{}, mGone}}) {
        Client client(path("host"), options);
        client.watch({[&](bool added, auto const& name) { log("-+"[added] + name); },
                      [&](bool added, auto const& name) { log("-+"[added] + name.toString()); }});
        EXPECT_THROW(client.watch({}), std::logic_error);
        Line& line = accept();
        awaitHeard(line, 1);
        line.say({3, 0, 0, 0, uint8_t(Type::TOPIC)});  // in two pieces
        line.say({0, 0});
        line.say(said);
        bool const lost = expected.find("host") < expected.size();
        if (said.empty()) line.close();
        if (!lost) settle(client);
        awaitLog("-;" + expected);
        EXPECT_EQ(client.connected(), !lost);
        mLog.clear();
    }
}

TEST_F(FakeHostTest, AProviderTakesNoMoreThanItMayBeAtWorkOn) {
    for (auto const& [most, taken] : {std::pair{size_t{137}, 2U}, {size_t{138}, 3U}}) {
        Client::Options options;
        options.maxUnanswered = most;
        options.reconnect = true;
        std::vector<Responder> kept;
        Client provider(path("host"), options);
        Line& line = accept();
        join(provider, line, [&](Bytes const&, Responder const& responder) {
            std::lock_guard<std::mutex> const lock(mMutex);
            kept.push_back(responder);
        });
        auto const awaitKept = [&](size_t count, uint16_t last) {
            await("a request", [&] {
                std::lock_guard<std::mutex> const lock(mMutex);
                return kept.size() == count && kept.back().msgId() == last;
            });
        };
        for (uint16_t id = 1; id <= taken + 1; ++id) {
            line.say(data(Type::REQUEST, 9, id, "12345"));
            settle(provider);
        }
        awaitKept(taken, uint16_t(taken));
        std::this_thread::sleep_for(20ms);  // its thread sleeps, and is woken
        EXPECT_TRUE(kept[0].reply({'r'}));
        std::optional<Responder> first = kept[0];
        kept.erase(kept.begin());
        first.reset();  // and only now there is room
        awaitKept(taken, uint16_t(taken + 1));
        awaitHeard(line, data(Type::REPLY, 9, 1, "r"));
        line.close();
        await("its loss", [&] { return !provider.connected(); });
        EXPECT_FALSE(kept[0].reply({}));
        if (taken == 2) continue;
        kept.pop_back();
        Line& again = accept();
        letIn(again, PROVIDER);
        again.say(data(Type::REQUEST, 9, 8, "12345"));
        awaitKept(taken, 8);
        EXPECT_FALSE(kept[1].reply({})) << "it came through another connection";
        EXPECT_THROW(kept.back().reply(Bytes(65536)), std::invalid_argument);
        EXPECT_TRUE(kept.back().reply({}));
    }
}

TEST_F(FakeHostTest, RepliesLeaveBehindASlowCallbackAndAtTheEnd) {
    auto provider = std::make_unique<Client>(path("host"));
    Line& line = accept();
    std::promise<void> heard;
    join(*provider, line, [&, first = true](auto const&, Responder const& responder) mutable {
        if (!first && heard.get_future().wait_for(9s) != std::future_status::ready) log("late");
        responder.reply({});
        std::exchange(first, false) ? std::this_thread::sleep_for(2ms) : provider.reset();
    });
    Bytes both = data(Type::REQUEST, 9, 1, ""), second = data(Type::REQUEST, 9, 2, "");
    both.insert(both.end(), second.begin(), second.end());
    line.say(both);
    awaitHeard(line, data(Type::REPLY, 9, 1, ""));
    heard.set_value();
    awaitHeard(line, data(Type::REPLY, 9, 2, ""));
    awaitClosed(line);
    EXPECT_EQ(logged(), "");
}

TEST_F(FakeHostTest, AClientGoesBackLaterAndLaterUntilTheHostIsThere) {
    BackOff backOff;
    for (auto const millis : {100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 3200ms})
        EXPECT_EQ(backOff.next(), millis);
    backOff.reset();
    EXPECT_EQ(backOff.next(), 100ms);

    Client stays(path("host"));
    accept().close();
    Client::Options options = logging();
    options.reconnect = true;
    auto client = std::make_unique<Client>(path("host"), options);
    client->watch({});
    client->tap({});
    EXPECT_THROW(client->tap({}), std::logic_error);
    Line* line = &accept();
    awaitHeard(*line, 2);
    Clock::time_point begin;
    auto const lose = [&] {
        begin = Clock::now();
        line->close();
        await("its loss", [&] { return !client->connected(); });
    };
    // Nobody is there the first time.
    std::clock_t const used = std::clock();
    lose();
    mListener.reset();
    std::this_thread::sleep_for(130ms);
    mListener.emplace(mIo, path("host"));
    line = &accept();
    EXPECT_GE(Clock::now() - begin, 300ms);
    EXPECT_LT(double(std::clock() - used) / CLOCKS_PER_SEC, 0.15) << "it sleeps meanwhile";
    awaitLog(mGone + "back 0;");
    awaitHeard(*line, TapMessage{true}.encode());
    auto untapped = std::async(std::launch::async, [&] { return client->untap(); });
    awaitHeard(*line, TapMessage{false}.encode());
    line->say(TappedMessage{}.encode());
    untapped.get();
    // Once it is back it begins anew; a busy machine may need some more attempts.
    for (bool const joined : {false, true}) {
        std::string before;
        for (int tries = 0; tries == 0 || (tries < 8 && Clock::now() - begin > 190ms); ++tries) {
            before = logged();
            lose();
            line = &accept();
            if (joined) letIn(*line, CONSUMER);
            awaitHeard(*line, encodeMessage(Type::WATCH));
            await("it is back", [&] { return client->connected(); });
        }
        EXPECT_LT(Clock::now() - begin, 190ms);
        EXPECT_EQ(line->heard().size(), joined ? 2U : 1U) << "it taps no more";
        if (!joined) join(*client, *line);
        settle(*client);
        EXPECT_EQ(logged().substr(before.size()), mGone + (joined ? "back 7;" : "back 0;"));
    }
    settle(stays);
    EXPECT_FALSE(stays.connected());
    // A host that does not accept holds up its end for a moment alone.
    mListener->acceptor().listen(0);
    connect();
    lose();
    std::this_thread::sleep_for(120ms);
    begin = Clock::now();
    client.reset();
    EXPECT_LT(Clock::now() - begin, 5s);
}

}  // namespace vesk::e2e
