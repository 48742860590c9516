// A host, seen by its clients and from the other end of its channel.

#include <fcntl.h>
#include <pty.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <future>
#include <thread>

#include <vesk/Vesk.h>
#include <asio/ip/tcp.hpp>

#include "HostCallback.h"
#include "support/HostScene.h"

namespace vesk::e2e {

using HostTest = HostScene;

TEST_F(HostTest, FramesFindTheirClientsAndTheirPeerAlsoWhenOneDoesNotRead) {
    Process& host = startHost(socket("channel"));
    Line& peer = acceptPeer();
    Line& deaf = join(CONSUMER);
    Line& consumer = join(CONSUMER);
    Line& provider = join(PROVIDER);
    expectExchange(peer, consumer);
    peer.say(frame(2, 77, 6, "q"));
    awaitHeard(provider, data(Type::REQUEST, 77, 6, "q"));
    provider.say(data(Type::REPLY, 78, 9, "a"));
    awaitHeard(peer, frame(3, 78, 9, "a"));
    client::Counters const c = counters();
    EXPECT_EQ((std::array{c.channelUp, c.clients, c.providers, c.receivedPackets, c.reconnects}),
              (std::array<uint64_t, 5>{1, 4, 1, 2, 0}));
    EXPECT_EQ(deaf.heard().size(), 1U);
    Bytes const reply = frame(3, deaf.number(0), 1, std::string(MAX_PAYLOAD_SIZE, 'x'));
    for (int i = 0; i < 160; ++i)
        peer.say(reply);  // 10 MiB, more than a host keeps for it; none is read meanwhile
    EXPECT_EQ(counters().evicted, 1U) << "nobody waited for it";
    expectExchange(peer, consumer, 2);
    host.signal(SIGTERM);
    expectEnd(host, 0);
    EXPECT_FALSE(std::filesystem::exists(path("host")));
}

TEST_F(HostTest, TheLastProviderTakesOverAndAllWhomItConcernsAreTold) {
    Process& host = startHost(socket("channel"));
    Line& peer = acceptPeer();
    Process& watch = start("watch --json --host " + socket("host"));
    awaitText(watch, "counters");
    join(PROVIDER);
    Line& unasked = connect();
    unasked.say(client::encodeMessage(Type::WATCH));
    Line& second = connect();
    second.say(client::encodeMessage(Type::NOTIFY));
    second.say(joining(PROVIDER));
    awaitHeard(second, client::encodeMessage(
                               Type::NOTICE,
                               "this provider takes over the requests for test/test from client 2, "
                               "which gets them again when this one leaves"));
    for (int i = 0; i < 11; ++i)
        join(CONSUMER);  // so that the library would choose another one than the last
    Process& last = start("provide test/test --echo --host " + socket("host"));
    awaitText(last,
              "the host says: this provider takes over the requests for test/test from "
              "client 4, which");
    peer.say(frame(2, 77, 6, "q"));
    awaitHeard(peer, frame(3, 77, 6, "q"));
    last.signal(SIGTERM);
    awaitHeard(second,
               client::encodeMessage(Type::NOTICE,
                                     "this provider gets the requests for test/test again"));
    peer.say(frame(2, 77, 7, "q"));
    awaitHeard(second, data(Type::REQUEST, 77, 7, "q"));
    EXPECT_EQ(second.heard().size(), 5U);
    for (char const* const line : {"test/test: client 16 takes over the requests from client 4",
                                   "test/test: client 4 gets the requests again"}) {
        awaitText(host, "vesk: " + std::string(line) + "\n");
        awaitText(watch, "{\"notice\":\"" + std::string(line) + "\"}\n");
    }
    peer.close();
    awaitText(watch, "{\"notice\":\"the channel is down\"}");
    for (Bytes const& message : unasked.heard())
        EXPECT_NE(Type(message[4]), Type::NOTICE);
}

TEST_F(HostTest, ClientsStayWhileTheChannelIsAway) {
    startHost(socket("channel"));
    Line& first = acceptPeer();
    Line& consumer = join(CONSUMER);
    Line& provider = join(PROVIDER);
    Process& watch = start("watch --host " + socket("host"));
    first.say({0x55, 0x08, 0x00, 0x02, 0x01});  // a frame that will never be whole
    mListener.reset();
    first.close();
    await("the end of the channel", [&] { return counters().channelUp == 0; });
    for (int msgId : {1, 2})
        consumer.say(data(Type::REQUEST, 0, msgId, "patience"));
    EXPECT_EQ(counters().pending, 0U);
    mListener.emplace(mIo, path("channel"));
    Line& second = acceptPeer();
    awaitHeard(second, 2);
    for (uint16_t const msgId : {uint16_t{1}, uint16_t{2}})
        EXPECT_EQ(second.heard()[msgId - 1U], frame(2, consumer.number(0), msgId, "patience"));
    awaitText(watch, "topic virtualcomm added\nprovider test/test added\nchannel ");
    awaitText(watch, "skipped bytes 5, reconnects 1, ");

    // What is inside a frame of a type not known yet is no frame. Of a frame that should have 3,000
    // bytes the rest never comes: it hides others until the channel is silent.
    Bytes const inside = frame(2, 1, 2, "inside");
    second.say(frame(4, 1, 2, {inside.begin(), inside.end()}));
    Bytes bytes{0x55, 0xB8, 0x0B, 2, 1, 2, 0, 0, 0, 0, 0, 0};
    for (uint8_t const byte : frame(2, 1, 2, "hidden"))
        bytes.push_back(byte);
    second.say(bytes);
    awaitHeard(provider, data(Type::REQUEST, 1, 2, "hidden"));
    EXPECT_EQ(provider.heard().size(), 2U);
    EXPECT_EQ(counters().skippedBytes, 17U);
    provider.close();
    awaitText(watch, "provider test/test removed\n");
}

TEST_F(HostTest, ALocalTopicNeedsNoChannelAndWhatCannotBeIsRefused) {
    startHost("tty:" + path("none"), " --local-topic test");
    Line& provider = join(PROVIDER);
    // It finishes its reply before it reads on, and more waits for it than a host keeps.
    std::string const longest(MAX_PAYLOAD_SIZE, 'x');
    std::ofstream(path("longest")) << longest;
    Process& caller = start("call test/test --count 400 --window 400 --verify --report --file " +
                            path("longest") + " --host " + socket("host"));
    for (size_t i = 1; i <= 400; ++i) {
        awaitHeard(provider, i + 1);
        provider.say(data(Type::REPLY, provider.number(i), provider.number(i, 2), longest));
    }
    expectEnd(caller, 0);
    EXPECT_EQ(counters().evicted, 0U);

    for (auto const& [role, bytes, answer] :
         {std::tuple{0, Bytes{5, 0, 1, 0}, "a payload has 65535 bytes at most"},
          {0, Bytes{0, 0, 0, 0}, "a message without a type"},
          {0, Bytes{1, 0, 0, 0, 99}, "a client does not send messages of type 99"},
          {0, Bytes{2, 0, 0, 0, 17, 1}, "a NOTIFY message is not of its form"},
          {0, Bytes{3, 0, 0, 0, 1, 1, 200}, "a JOIN message is not of its form"},
          {0, Bytes{3, 0, 0, 0, 4, 1, 200}, "only a consumer sends requests"},
          {CONSUMER, data(Type::REPLY, 1, 1, ""), "only a provider sends replies"},
          {0, joining(CONSUMER, "nix"), "the known ones are: virtualcomm, test"},
          {0, joining(CONSUMER, "virtualcomm"), "does not serve the topic"},
          {0, joining(CONSUMER, "test", "toast"), "no business 'toast'; the known ones are: test"},
          {CONSUMER, joining(CONSUMER), "this client has joined already"},
          {PROVIDER, Bytes{3, 0, 0, 0, 5, 1, 2}, "REPLY message is not of its form"}}) {
        Line& line = role ? join(role) : connect();
        line.say(bytes);
        line.say(joining(CONSUMER));
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), role ? 2U : 1U);
        std::string const last(line.heard().back().begin() + 4, line.heard().back().end());
        EXPECT_EQ(last[0], static_cast<char>(Type::REFUSED));
        EXPECT_NE(last.find(answer), std::string::npos) << last;
    }
    EXPECT_EQ(counters().refused, 12U);
}

TEST_F(HostTest, EveryKindOfChannelCarriesAnExchange) {
    int master = -1, slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    Process& host = startHost("tty:" + std::string(::ttyname(slave)) + ",9600");
    expectExchange(mLines.emplace_back(mIo, Line::FRAMES, master), join(CONSUMER));
    termios settings{};
    ::tcgetattr(slave, &settings);
    EXPECT_EQ(::cfgetospeed(&settings), speed_t{B9600});
    ::close(slave);
    host.signal(SIGINT);
    expectEnd(host, 0);

    asio::ip::tcp::endpoint const any(asio::ip::address_v4::loopback(), 0);
    asio::ip::tcp::endpoint const free = asio::ip::tcp::acceptor(mIo, any).local_endpoint();
    std::string const port = std::to_string(free.port());
    startHost("tcp:localhost:" + port);  // has to try again
    std::filesystem::rename(path("host"), path("near"));
    Process& far = startHost("tcp:" + port, " --listen");
    awaitText(start("provide test/test --echo --host " + socket("host")), "providing");
    expectEnd(start("call test/test --timeout 60000 --verify --host " + socket("near")), 0);
    awaitText(far, "channel up: tcp:127.0.0.1:" + port);
}

TEST_F(HostTest, ACommandOrADeviceCarriesAChannelAndTheCommandEndsWithIt) {
    // At first the command fails; then it is the other host.
    Process& near = startHost("'exec:[ -e " + path("tried") + " ] || { : >" + path("tried") +
                              "; exit 1; }; exec " VESK_TOOL " host --channel stdio: --clients " +
                              socket("far") + "'");
    awaitText(near, "serving clients on " + socket("far"));
    EXPECT_EQ(counters().reconnects, 1U);
    Process& provider = start("provide test/test --echo --host " + socket("far"));
    awaitText(provider, "providing");
    expectEnd(
            start("call test/test --verify --count 9 --random-size 65535 --host " + socket("host")),
            0);
    near.signal(SIGKILL);
    expectEnd(provider, 1, "the host is gone");
    std::filesystem::remove(path("host"));
    expectEnd(start("host --channel stdio: --clients " + socket("host")), 0, "channel down");

    ASSERT_EQ(::mkfifo(path("loop").c_str(), 0600), 0);
    startHost("dev:" + path("loop"));
    Line& consumer = join(CONSUMER);
    Line& looped = join(PROVIDER);
    consumer.say(data(Type::REQUEST, 0, 5, "there"));
    awaitHeard(looped, data(Type::REQUEST, consumer.number(0), 5, "there"));
    looped.say(data(Type::REPLY, consumer.number(0), 5, "and back"));
    awaitHeard(consumer, data(Type::REPLY, consumer.number(0), 5, "and back"));
}

TEST_F(HostTest, ACommandIsAskedToEndAndEndsWithAHostThatIsKilled) {
    ASSERT_EQ(::mkfifo(path("held").c_str(), 0600), 0);
    int const held = ::open(path("held").c_str(), O_RDONLY | O_NONBLOCK);
    char said = 0;
    // As long as one of the command's processes runs, "held" has no end.
    for (char const* const how :
         {"trap \"echo asked >&9; exit\" TERM; exec >&-", "trap \"\" TERM; echo deaf >&9"}) {
        Process& host =
                startHost("'exec:exec 9>" + path("held") + "; " + how + "; sleep 1000 & wait'");
        await("a word of the command", [&] { return ::read(held, &said, 1) == 1; });
        host.signal(SIGKILL);
        await("its end", [&] { return ::read(held, &said, 1) == 0; });
    }
    ::close(held);
}

TEST_F(HostTest, APeerThatDoesNotAcceptIsTriedAgain) {
    mListener->acceptor().listen(0);  // there is room for one that waits
    connect("channel", Line::FRAMES);
    Process& host = startHost(socket("channel"));
    awaitText(host, "Connection timed out; trying again");
    acceptPeer();
    expectExchange(acceptPeer(), join(CONSUMER));
}

TEST_F(HostTest, OfTwoHostsThatStartAtOnceTheFirstHasTheSocket) {
    // The test is the first: it has the lock, and a socket that it does not listen to yet.
    int const lock = ::open(path("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    asio::local::stream_protocol::acceptor first(mIo, asio::local::stream_protocol());
    first.bind(path("host"));
    Process& second = start("host --channel tty:x --clients " + socket("host"));
    std::string const open = "/proc/" + std::to_string(second.pid()) + "/fd";
    std::filesystem::path const directory = std::filesystem::canonical(path(""));
    await("its look at the lock", [&] {
        std::error_code gone;
        for (auto const& file : std::filesystem::directory_iterator(open, gone)) {
            if (std::filesystem::read_symlink(file, gone) == directory) return true;
        }
        return !second.ending().empty();
    });
    first.listen();
    ::close(lock);
    expectEnd(second, 1, "another process serves");
}

TEST_F(HostTest, AListenerHasOnePeerAtATimeAndOneOwner) {
    Process& host = startHost(socket("own"), " --listen");
    for (auto const& [name, why] :
         {std::pair{"host", "another process serves"}, {"0.err", "is no socket"}}) {
        expectEnd(start("host --channel tty:x --clients " + socket(name)), 1, why);
    }
    Line& peer = connect("own", Line::FRAMES);
    Line& consumer = join(CONSUMER);
    expectExchange(peer, consumer);
    awaitClosed(connect("own", Line::FRAMES));
    expectExchange(peer, consumer, 2);
    peer.close();
    expectExchange(connect("own", Line::FRAMES), consumer, 3);
    host.signal(SIGKILL);
    await("its end", [&] { return host.ending() == "signal 9"; });
    startHost(socket("own"), " --listen");
}

TEST_F(HostTest, MessagesHaveTheirDocumentedBytes) {
    EXPECT_EQ(joining(2, "ab", "c"), (Bytes{7, 0, 0, 0, 1, 2, 2, 'a', 'b', 1, 'c'}));
    Bytes counted = client::Counters{1, 0x203}.encode();
    counted.resize(16);
    EXPECT_EQ(counted, (Bytes{113, 0, 0, 0, 10, 1, 0, 0, 0, 0, 0, 0, 0, 3, 2, 0}));
    EXPECT_EQ(client::StatusMessage{client::StatusFormat::JSON}.encode(),
              (Bytes{2, 0, 0, 0, 11, 2}));
    EXPECT_FALSE(client::StatusMessage::decode({3}));
}

TEST_F(HostTest, AHostThatIsGoneIsNotCalledAndOneThatIsCalledHoldsNoLock) {
    struct Watcher : hostkit::ChannelWatcher {
        std::function<void()> onBytes;
        void opened(std::string const&) override {}
        void closed() override {}
        void carried(hostkit::FrameText::Direction, uint8_t const*, size_t) override { onBytes(); }
    } watcher;
    hostkit::Channel::Events events;
    events.watcher = &watcher;
    hostkit::Channel channel(mIo, hostkit::Endpoint::parse(socket("channel")), false,
                             *Vesk::getInstance()->getConfig(), events);
    hostkit::ClientServer clients(mIo, path("host"), {}, hostkit::FlowLimits(), {});
    hostkit::TrafficCounters traffic;
    hostkit::Tap tap;
    android::sp<hostkit::HostCallback> const callback =
            new hostkit::HostCallback(channel, clients, traffic, tap);
    Bytes const bytes(VeskFrame::FRAME_HEAD_SIZE);
    std::promise<void> begun;
    std::atomic<bool> ended{false};
    int calls = 0;
    watcher.onBytes = [&] {
        if (++calls > 1) return;
        callback->sendToChannel(bytes);
        begun.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // in which it is detached
        ended = true;
    };
    std::thread looper([&] { callback->sendToChannel(bytes); });
    begun.get_future().wait();
    callback->detach();
    EXPECT_TRUE(ended);
    callback->sendToChannel(bytes);
    EXPECT_EQ(channel.outbox().lostBytes(), 2 * bytes.size());
    looper.join();
}

}  // namespace vesk::e2e
