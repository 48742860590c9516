// Clients and peers that do not read, do not end what they begin, or just leave: what a host does
// about them, and that nobody else feels it.

#include <sys/resource.h>

#include "support/HostScene.h"

namespace vesk::e2e {

namespace {

constexpr size_t MIB = size_t{1024} * 1024;

class FlowTest : public HostScene {
protected:
    /** The number behind these words in what the system says of a process. */
    static long statusOf(Process const& process, std::string const& words) {
        std::string const text =
                Process::content("/proc/" + std::to_string(process.pid()) + "/status");
        return std::stol(text.substr(text.find(words) + words.size() + 1));
    }

    /** Two hosts, of which the far one has an echo; clients meet the near one. */
    void startHosts() {
        startHost(socket("own"), " --listen");
        awaitText(start("provide test/test --echo --host " + socket("host")), "providing");
        std::filesystem::rename(path("host"), path("far"));
        startHost(socket("own"));
        await("the channel", [&] { return counters().channelUp == 1; });
    }

    std::string const mLong = std::string(60000, 'x');
};

}  // namespace

TEST_F(FlowTest, AConsumerThatDoesNotReadSlowsOnlyItself) {
    startHosts();
    for (int const step : {0, 1}) {
        Line& deaf = join(CONSUMER);
        Bytes requests;
        for (int i = 0; i < 8; ++i) {
            for (uint8_t const byte : data(Type::REQUEST, 0, 1 + i * step, mLong))
                requests.push_back(byte);
        }
        EXPECT_LT(deaf.flood(requests, 64 * MIB), 8 * MIB);
        expectEnd(start("call test/test --data x --count 50 --timeout 20000 --verify --host " +
                        socket("host")),
                  0);
        EXPECT_EQ(counters().evicted, 0U) << "it may read later";
    }
}

TEST_F(FlowTest, TwoHostsThatAreFullOfEachOthersMessagesGoOn) {
    // The less there is room for in the channel, and in a host, the sooner it is full.
    Process& host = startHost("'exec:" VESK_TOOL " host --memory 16 --channel stdio: --clients " +
                                      socket("far") + "'",
                              " --memory 16");
    awaitText(host, "serving clients on " + socket("far"));
    awaitText(start("provide test/test --echo --host " + socket("far")), "providing");
    awaitText(start("provide virtualcomm/vm --echo --host " + socket("host")), "providing");
    std::string const options =
            " --count 400 --window 200 --random-size 65535 --timeout 60000 --verify --host ";
    Process& near = start("call test/test" + options + socket("host"));
    Process& far = start("call virtualcomm/vm" + options + socket("far"));
    expectEnd(near, 0);
    expectEnd(far, 0);
}

TEST_F(FlowTest, WhoLeavesWhilePausedIsGoneAndAHostAtRestSleeps) {
    Process& host = startHost(socket("own"), " --listen");
    for (int i = 0; i < 3; ++i) {
        expectEnd(start("call test/test --data ghost --timeout 50 --host " + socket("host")), 4,
                  "1 of 1 requests got no reply: the host's channel is down since");
    }
    await("their end", [&] { return counters().clients == 1; });
    Line& consumer = join(CONSUMER);
    consumer.say(data(Type::REQUEST, 0, 7, "patience"));
    EXPECT_EQ(counters().pending, 0U);
    long const woken = statusOf(host, "\nvoluntary_ctxt_switches:");
    mIo.run_for(std::chrono::milliseconds(300));
    EXPECT_LT(statusOf(host, "\nvoluntary_ctxt_switches:") - woken, 10);
    Line& peer = connect("own", Line::FRAMES);
    awaitHeard(peer, frame(2, consumer.number(0), 7, "patience"));
    EXPECT_EQ(peer.heard().size(), 1U);
}

TEST_F(FlowTest, APeerThatOnlySendsIsNotReadFromAfterAWhile) {
    Process& host = startHost(socket("own"),
                              " --listen --memory 16 --local-topic test --topic "
                              "virtualcomm");
    Line& peer = connect("own", Line::FRAMES);
    await("the channel", [&] { return counters().channelUp == 1; });
    long const before = statusOf(host, "VmRSS:");
    // Requests without payload for which there is no provider; each is acknowledged.
    Bytes requests;
    for (int i = 0; i < 1000; ++i) {
        for (uint8_t const byte : testkit::FarPeer::encode({1, 1, 2, 9, 0, 1, {}}))
            requests.push_back(byte);
    }
    EXPECT_LT(peer.flood(requests, 16 * MIB), 8 * MIB);
    EXPECT_LT(statusOf(host, "VmHWM:") - before, 16 * 1024);
    Line& provider = join(PROVIDER);
    Line& consumer = join(CONSUMER);
    consumer.say(data(Type::REQUEST, 0, 1, "hi"));
    awaitHeard(provider, data(Type::REQUEST, consumer.number(0), 1, "hi"));
}

TEST_F(FlowTest, AProviderTakesNoMoreThanItCanAnswer) {
    for (char const* const how : {"--echo", "--exec 'sleep 60'"}) {
        Process& provider = start("provide test/test --host " + socket("channel") + " " + how);
        Line& line = accept(*mListener, Line::MESSAGES);
        awaitHeard(line, joining(PROVIDER));
        line.say(client::JoinedMessage{7}.encode());
        EXPECT_LT(line.flood(data(Type::REQUEST, 1, 1, mLong), 64 * MIB), 16 * MIB) << how;
        line.close();
        expectEnd(provider, 1, "the host is gone");
    }
}

TEST_F(FlowTest, WhoSaysNothingMakesPlace) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1100) GTEST_SKIP() << "too few descriptors";
    limit.rlim_cur = 500;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    startHost(socket("own"), " --listen --local-topic test");  // which takes as many as it needs
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    Line& provider = join(PROVIDER);
    for (int i = 0; i < 1000; ++i)
        connect();
    Line& consumer = join(CONSUMER);
    consumer.say(data(Type::REQUEST, 0, 1, "hi"));
    awaitHeard(provider, data(Type::REQUEST, consumer.number(0), 1, "hi"));
    EXPECT_LE(counters().clients, 1000U);
}

}  // namespace vesk::e2e
