// A host, seen by its clients and from the other end of its channel.

#include <pty.h>
#include <termios.h>

#include <optional>

#include <vesk/Vesk.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>
#include <asio/ip/tcp.hpp>

#include "Admission.h"
#include "HostCallback.h"
#include "support/Scene.h"

namespace vesk::e2e {

namespace {

constexpr int CONSUMER = 1;
constexpr int PROVIDER = 2;

Bytes frame(uint8_t type, uint16_t session, uint16_t msgId, std::string const& payload) {
    return testkit::FarPeer::encode(
            {2, 1, type, session, 0, msgId, {payload.begin(), payload.end()}});
}

class HostTest : public Scene {
protected:
    /** Starts a host that serves clients at "host", and waits until it does. */
    Process& startHost(std::string const& channel, std::string const& more = "") {
        Process& host = start("host --clients " + socket("host") + " --channel " + channel + more);
        awaitText(host, "serving");
        return host;
    }

    Line& join(int role) {
        Line& line = connect();
        line.say(tool::JoinMessage{role, "test", "test"}.encode());
        awaitHeard(line, 1);
        return line;
    }

    tool::Counters counters() {
        Line& line = connect();
        line.say(tool::encodeMessage(Type::QUERY));
        awaitHeard(line, 1);
        line.close();
        return *tool::Counters::decode({line.heard()[0].begin() + 5, line.heard()[0].end()});
    }

    void expectExchange(Line& peer, Line& consumer, uint16_t msgId = 0x1234) {
        consumer.say(data(Type::REQUEST, 0, msgId, "hi"));
        awaitHeard(peer, frame(2, consumer.number(0), msgId, "hi"));
        peer.say(frame(3, consumer.number(0), msgId, "ho"));
        awaitHeard(consumer, data(Type::REPLY, consumer.number(0), msgId, "ho"));
    }

    Line& acceptPeer() { return accept(*mListener, Line::FRAMES); }

    std::optional<tool::UnixListener> mListener{std::in_place, mIo, path("channel")};
};

TEST_F(HostTest, FramesFindTheirClientsAndTheirPeer) {
    Process& host = startHost(socket("channel"));
    Line& peer = acceptPeer();
    Line& watcher = connect();
    for (int i = 0; i < 2; ++i)
        watcher.say(tool::encodeMessage(Type::WATCH));
    Line& other = join(CONSUMER);
    Line& consumer = join(CONSUMER);
    Line& provider = join(PROVIDER);
    join(PROVIDER).close();
    awaitHeard(watcher, 5);
    expectExchange(peer, consumer);
    peer.say(frame(2, 77, 6, "q"));
    awaitHeard(provider, data(Type::REQUEST, 77, 6, "q"));
    provider.say(data(Type::REPLY, 78, 9, "a"));
    awaitHeard(peer, frame(3, 78, 9, "a"));
    tool::Counters const c = counters();
    EXPECT_EQ((std::array{c.channelUp, c.clients, c.providers, c.receivedPackets, c.reconnects}),
              (std::array<uint64_t, 5>{1, 5, 1, 2, 0}));
    host.signal(SIGTERM);
    expectEnd(host, 0);
    EXPECT_FALSE(std::filesystem::exists(path("host")));
    awaitClosed(watcher);
    EXPECT_EQ(other.heard().size(), 1U);
    auto const change = [](Type type, bool added, char const* topic) {
        return tool::ChangeMessage{added, topic, "test"}.encode(type);
    };
    std::vector const news{
            change(Type::TOPIC, true, "test"), change(Type::TOPIC, true, "virtualcomm"),
            change(Type::PROVIDER, true, "test"), change(Type::PROVIDER, true, "test"),
            change(Type::PROVIDER, false, "test")};
    EXPECT_EQ(watcher.heard(), news);
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
    EXPECT_EQ(second.heard()[0], frame(2, consumer.number(0), 1, "patience"));
    EXPECT_EQ(second.heard()[1], frame(2, consumer.number(0), 2, "patience"));
    expectExchange(second, consumer);
    for (char const* news : {"topic test added\n", "provider test/test added\nchannel ",
                             "reconnects 1, ", "skipped bytes 5, "})
        awaitText(watch, news);

    // A header behind garbage that claims 3,000 bytes hides frames until the channel is silent.
    Bytes bytes{0x00, 0x55, 0xB8, 0x0B, 2, 1, 2, 0, 0, 0, 0, 0, 0};
    Bytes const request = frame(2, 1, 2, "hidden");
    bytes.insert(bytes.end(), request.begin(), request.end());
    second.say(bytes);
    awaitHeard(provider, data(Type::REQUEST, 1, 2, "hidden"));
    EXPECT_EQ(counters().skippedBytes, 18U);
    watch.signal(SIGTERM);
    expectEnd(watch, 0);
}

TEST_F(HostTest, ALocalTopicNeedsNoChannelAndWhatCannotBeIsRefused) {
    startHost("tty:" + path("none"), " --local-topic test");
    Line& provider = join(PROVIDER);
    Line& consumer = join(CONSUMER);
    // It finishes its reply before it reads on, and more waits for it than a host keeps.
    std::string const longest(tool::MAX_PAYLOAD, 'x');
    std::ofstream(path("longest")) << longest;
    Process& caller = start("call test/test --count 400 --window 400 --verify --report --file " +
                            path("longest") + " --host " + socket("host"));
    for (size_t i = 1; i <= 400; ++i) {
        awaitHeard(provider, i + 1);
        provider.say(data(Type::REPLY, provider.number(i), provider.number(i, 2), longest));
    }
    expectEnd(caller, 0);
    EXPECT_EQ(counters().evicted, 0U);

    auto const joining = [](char const* topic, char const* business, int role = CONSUMER) {
        return tool::JoinMessage{role, topic, business}.encode();
    };
    Line* const none = nullptr;  // a new one
    size_t refused = 0;
    for (auto const& [bytes, answer, known] :
         {std::tuple{Bytes{5, 0, 1, 0}, "a payload has 65535 bytes at most", none},
          {Bytes{0, 0, 0, 0}, "a message without a type", none},
          {Bytes{1, 0, 0, 0, 99}, "a client does not send messages of type 99", none},
          {Bytes{3, 0, 0, 0, 1, 1, 200}, "a JOIN message is not of its form", none},
          {Bytes{3, 0, 0, 0, 4, 1, 200}, "only a consumer sends requests", none},
          {data(Type::REPLY, 1, 1, ""), "only a provider sends replies", none},
          {joining("test", "test", 3), "(1) or provider (2), not as 3", none},
          {joining("test", "test", 0), "(1) or provider (2), not as 0", none},
          {joining("nix", "test"), "the known ones are: virtualcomm, test", none},
          {joining("virtualcomm", "vm"), "does not serve the topic", none},
          {joining("test", "toast"), "no business 'toast'; the known ones are: test", none},
          {joining("test", "test"), "this client has joined already", &consumer},
          {Bytes{3, 0, 0, 0, 5, 1, 2}, "REPLY message is not of its form", &provider}}) {
        Line& line = known ? *known : connect();
        line.say(bytes);
        line.say(joining("test", "test"));
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), known == &provider ? 402U : known ? 2U : 1U);
        std::string const last(line.heard().back().begin() + 4, line.heard().back().end());
        EXPECT_EQ(last[0], static_cast<char>(Type::REFUSED));
        ++refused;
        EXPECT_NE(last.find(answer), std::string::npos) << last;
    }
    EXPECT_EQ(counters().refused, refused);
    connect().say({3, 0, 0});  // a client that vanishes
    mLines.back().close();
    await("all to be gone", [&] { return counters().clients == 1; });
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

    using asio::ip::tcp;
    tcp::endpoint const any(asio::ip::address_v4::loopback(), 0);
    tcp::endpoint const free = tcp::acceptor(mIo, any).local_endpoint();
    std::string const port = std::to_string(free.port());
    startHost("tcp:localhost:" + port);  // has to try again
    Line& consumer = join(CONSUMER);
    std::filesystem::rename(path("host"), path("near"));
    Process& far = startHost("tcp:" + port, " --listen");
    Line& provider = join(PROVIDER);
    consumer.say(data(Type::REQUEST, 0, 1, "hi"));
    awaitHeard(provider, data(Type::REQUEST, consumer.number(0), 1, "hi"));
    provider.say(data(Type::REPLY, consumer.number(0), 1, "ho"));
    awaitHeard(consumer, data(Type::REPLY, consumer.number(0), 1, "ho"));
    far.signal(SIGTERM);
    expectEnd(far, 0, "channel up: tcp:127.0.0.1:" + port);
}

TEST_F(HostTest, AListenerHasOnePeerAtATimeAndOneOwner) {
    Process& host = startHost(socket("own"), " --listen");
    for (auto const& [name, why] : {std::pair{"host", "another process serves"},
                                    {"0.err", "is no socket"},
                                    {"no/socket", "cannot create the socket"}}) {
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

TEST_F(HostTest, AClientThatDoesNotReadHoldsTheChannelForSomeTime) {
    startHost(socket("channel"));
    Line& peer = acceptPeer();
    Line& consumer = join(CONSUMER);
    Line& deaf = join(CONSUMER);
    Bytes const reply = frame(3, deaf.number(0), 1, std::string(tool::MAX_PAYLOAD, 'x'));
    for (int i = 0; i < 160; ++i)
        peer.say(reply);  // 10 MiB, more than a host keeps for it; none is read meanwhile
    EXPECT_EQ(counters().evicted, 1U) << "nobody waited for it";
    expectExchange(peer, consumer);
}

TEST_F(HostTest, MessagesHaveTheirDocumentedBytes) {
    EXPECT_EQ((tool::JoinMessage{2, "ab", "c"}.encode()),
              (Bytes{7, 0, 0, 0, 1, 2, 2, 'a', 'b', 1, 'c'}));
    EXPECT_EQ(tool::JoinedMessage{0x1234}.encode(), (Bytes{3, 0, 0, 0, 2, 0x34, 0x12}));
    EXPECT_EQ(data(Type::REPLY, 0x102, 0x304, "x"), (Bytes{6, 0, 0, 0, 5, 2, 1, 4, 3, 'x'}));
    tool::ChangeMessage const change{true, "t", "b"};
    EXPECT_EQ(change.encode(Type::TOPIC), (Bytes{4, 0, 0, 0, 7, 1, 1, 't'}));
    EXPECT_EQ(change.encode(Type::PROVIDER), (Bytes{6, 0, 0, 0, 8, 1, 1, 't', 1, 'b'}));
    Bytes counted{113, 0, 0, 0, 10};
    for (uint8_t i = 1; i < 14; ++i)
        counted.insert(counted.end(), {i, 0, 0, 0, 0, 0, 0, 0});
    counted.insert(counted.end(), {1, 2, 3, 4, 5, 6, 7, 8});
    tool::Counters const counters{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0x0807060504030201};
    EXPECT_EQ(counters.encode(), counted);
    EXPECT_EQ(tool::Counters::decode({counted.begin() + 5, counted.end()})->encode(), counted);
    EXPECT_FALSE(tool::Counters::decode({counted.begin() + 4, counted.end()}));
}

TEST_F(HostTest, ThereIsRoomForSoManyFramesAndBytes) {
    auto* const vesk = Vesk::getInstance();
    vesk->init(new testkit::RecordingCallback);
    testkit::ShiftedClock clock;
    tool::Channel channel(mIo, tool::Endpoint::parse(socket("channel")), false, *vesk->getConfig(),
                          {[](bool) {}, {}, [] {}});
    tool::Admission const admission(*vesk->getQueue(), channel);
    EXPECT_FALSE(admission.open()) << "the channel is down";
    channel.start();
    acceptPeer();
    await("the channel", [&] { return channel.up(); });
    // Of packets that leave at once and await acknowledgement, and of such that are held back.
    for (auto const& [priority, limit] : {std::pair{1, 900}, {2, 256}}) {
        for (int i = 0; i < limit; ++i) {
            ASSERT_TRUE(admission.open()) << i;
            auto const packet = VeskFrame::obtainFrame(true);
            packet->msgId = static_cast<uint16_t>(i);
            vesk->getQueue()->enqueue(priority, true, packet);
            clock.settle();
        }
        EXPECT_FALSE(admission.open()) << limit;
        vesk->onChannelAvailable(false);
    }
    for (size_t size : {size_t{1024} * 1024 - 1, size_t{1}}) {
        EXPECT_TRUE(admission.open());
        channel.write(Bytes(size));
    }
    EXPECT_FALSE(admission.open());
    await("room", [&] { return channel.backlog() == 0; });

    tool::ClientServer clients(mIo, path("host"), {}, {});
    android::sp<tool::HostCallback> const callback = new tool::HostCallback(channel, clients);
    callback->detach();
    callback->sendToChannel({1});
    EXPECT_EQ(channel.backlog(), 0U) << "the host has gone";
}

}  // namespace

}  // namespace vesk::e2e
