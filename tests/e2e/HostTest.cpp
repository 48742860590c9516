// A host, seen by its clients and from the other end of its channel.

#include <pty.h>
#include <termios.h>

#include <asio/ip/tcp.hpp>

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
    Process& startHost(std::string const& channel, Strings const& more = {}) {
        Strings arguments{"host", "--channel", channel, "--clients", socket("host")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Process& host = start(arguments);
        awaitErrors(host, "serving");
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

    tool::UnixListener mListener{mIo, path("channel")};
};

TEST_F(HostTest, FramesFindTheirClientsAndTheirPeer) {
    Process& host = startHost(socket("channel"));
    Line& peer = accept(mListener, Line::FRAMES);
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
    auto const counted = counters();
    EXPECT_EQ(counted.channelUp, 1U);
    EXPECT_EQ(counted.clients, 5U);
    EXPECT_EQ(counted.providers, 1U);
    EXPECT_EQ(counted.receivedPackets, 2U);
    EXPECT_EQ(counted.refused + counted.evicted + counted.reconnects + counted.skippedBytes, 0U);
    host.signal(SIGTERM);
    expectEnd(host, 0);
    awaitClosed(watcher);
    EXPECT_EQ(other.heard().size(), 1U);
    auto const change = [](Type type, bool added, char const* topic) {
        return tool::ChangeMessage{added, topic, "test"}.encode(type);
    };
    EXPECT_EQ(watcher.heard(),
              (std::vector{
                      change(Type::TOPIC, true, "test"), change(Type::TOPIC, true, "virtualcomm"),
                      change(Type::PROVIDER, true, "test"), change(Type::PROVIDER, true, "test"),
                      change(Type::PROVIDER, false, "test")}));
}

TEST_F(HostTest, ClientsStayWhileTheChannelIsAway) {
    startHost(socket("channel"));
    Line& first = accept(mListener, Line::FRAMES);
    Line& consumer = join(CONSUMER);
    Line& provider = join(PROVIDER);
    Process& watch = start({"watch", "--host", socket("host")});
    first.say({0x55, 0x08, 0x00, 0x02, 0x01});  // a frame that will never be whole
    first.close();
    await("the end of the channel", [&] { return counters().channelUp == 0; });
    for (int msgId : {1, 2})
        consumer.say(data(Type::REQUEST, 0, msgId, "patience"));
    provider.say(data(Type::REPLY, 3, 3, "patience"));
    EXPECT_EQ(counters().pending, 0U);
    Line& second = accept(mListener, Line::FRAMES);
    awaitHeard(second, 3);
    uint16_t const session = consumer.number(0);
    EXPECT_EQ(second.heard(),
              (std::vector{frame(2, session, 1, "patience"), frame(2, session, 2, "patience"),
                           frame(3, 3, 3, "patience")}));
    expectExchange(second, consumer);
    for (char const* news : {"topic test added\n", "provider test/test added\nchannel ",
                             "reconnects 1, ", "skipped bytes 5, "})
        await(news, [&] { return watch.output().find(news) != std::string::npos; });

    // A header behind garbage that claims 3,000 bytes hides frames until the channel is silent.
    Bytes bytes{0x00, 0x55, 0xB8, 0x0B, 2, 1, 2, 0, 0, 0, 0, 0, 0};
    Bytes const request = frame(2, 1, 2, "hidden");
    bytes.insert(bytes.end(), request.begin(), request.end());
    second.say(bytes);
    awaitHeard(provider, data(Type::REQUEST, 1, 2, "hidden"));
    EXPECT_EQ(counters().skippedBytes, 18U);
}

TEST_F(HostTest, ALocalTopicNeedsNoChannelAndWhatCannotBeIsRefused) {
    startHost("tty:" + path("none"), {"--local-topic", "test"});
    Line& provider = join(PROVIDER);
    Line& consumer = join(CONSUMER);
    // It finishes its reply before it reads on, and more waits for it than a host keeps.
    std::string const longest(tool::MAX_PAYLOAD, 'x');
    std::ofstream(path("longest")) << longest;
    Process& caller = start({"call", "test/test", "--host", socket("host"), "--file",
                             path("longest"), "--count", "400", "--window", "400", "--verify",
                             "--report", "--timeout", "60000"});
    for (size_t i = 1; i <= 400; ++i) {
        awaitHeard(provider, i + 1);
        provider.say(data(Type::REPLY, provider.number(i), provider.number(i, 2), longest));
    }
    expectEnd(caller, 0);
    EXPECT_EQ(counters().evicted, 0U);

    auto const joining = [](char const* topic, char const* business, int role = CONSUMER) {
        return tool::JoinMessage{role, topic, business}.encode();
    };
    struct {
        Bytes bytes;
        char const* answer;
        Line* line;  // a new one where there is none
    } const bad[] = {
            {{0xFF, 0xFF, 0xFF, 0xFF, 4}, "a payload has 65535 bytes at most", nullptr},
            {{0, 0, 0, 0}, "a message without a type", nullptr},
            {{1, 0, 0, 0, 99}, "a client does not send messages of type 99", nullptr},
            {{3, 0, 0, 0, 1, 1, 200}, "a JOIN message is not of its form", nullptr},
            {{3, 0, 0, 0, 4, 1, 200}, "only a consumer sends requests", nullptr},
            {data(Type::REPLY, 1, 1, ""), "only a provider sends replies", nullptr},
            {joining("test", "test", 3), "(1) or provider (2), not as 3", nullptr},
            {joining("test", "test", 0), "(1) or provider (2), not as 0", nullptr},
            {joining("nix", "test"), "the known ones are: virtualcomm, test", nullptr},
            {joining("virtualcomm", "vm"), "does not serve the topic", nullptr},
            {joining("test", "toast"), "no business 'toast'; the known ones are: test", nullptr},
            {joining("test", "test"), "this client has joined already", &consumer},
            {{3, 0, 0, 0, 5, 1, 2}, "REPLY message is not of its form", &provider},
    };
    for (auto const& [bytes, answer, known] : bad) {
        Line& line = known ? *known : connect();
        line.say(bytes);
        line.say(joining("test", "test"));
        awaitClosed(line);
        EXPECT_EQ(line.heard().size(), known == &provider ? 402U : known ? 2U : 1U);
        std::string const last(line.heard().back().begin() + 4, line.heard().back().end());
        EXPECT_EQ(last[0], static_cast<char>(Type::REFUSED));
        EXPECT_NE(last.find(answer), std::string::npos) << last;
    }
    EXPECT_EQ(counters().refused, std::size(bad));
    connect().say({3, 0, 0});  // a client that vanishes
    mLines.back().close();
    await("all to be gone", [&] { return counters().clients == 1; });
}

TEST_F(HostTest, EveryKindOfChannelCarriesAnExchange) {
    using asio::ip::tcp;
    tcp::acceptor acceptor(mIo, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    tcp::endpoint const where = acceptor.local_endpoint();
    std::string const port = std::to_string(where.port());
    int master = -1, slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    struct {
        std::string channel;
        std::function<int()> peer;
    } const cases[] = {
            {"tcp:localhost:" + port, [&] { return acceptor.accept().release(); }},
            {"tty:" + std::string(::ttyname(slave)) + ",9600", [&] { return master; }},
            {"tcp:127.0.0.1:" + port,
             [&] {
                 tcp::socket socket(mIo);
                 socket.connect(where);
                 return socket.release();
             }},
    };
    for (auto const& [channel, peer] : cases) {
        bool const listen = channel.find("127") != std::string::npos;
        if (listen) acceptor.close();
        Process& host = startHost(channel, listen ? Strings{"--listen"} : Strings{});
        expectExchange(mLines.emplace_back(mIo, Line::FRAMES, peer()), join(CONSUMER));
        host.signal(SIGINT);
        expectEnd(host, 0, "channel up: " + channel);
    }
    termios settings{};
    ::tcgetattr(slave, &settings);
    EXPECT_EQ(::cfgetospeed(&settings), speed_t{B9600});
    ::close(slave);
}

TEST_F(HostTest, AListenerHasOnePeerAtATimeAndOneOwner) {
    Process& host = startHost(socket("own"), {"--listen"});
    for (auto const& [name, why] : {std::pair{"host", "another process serves"},
                                    {"errors0", "is no socket"},
                                    {"no/socket", "cannot create the socket"}}) {
        expectEnd(start({"host", "--channel", "tty:x", "--clients", socket(name)}), 1, why);
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
    Process& successor = startHost(socket("own"), {"--listen"});
    successor.signal(SIGTERM);
    expectEnd(successor, 0);
    EXPECT_FALSE(std::filesystem::exists(path("own")) || std::filesystem::exists(path("host")));
}

TEST_F(HostTest, AClientThatDoesNotReadHoldsTheChannelForSomeTime) {
    startHost(socket("channel"));
    Line& peer = accept(mListener, Line::FRAMES);
    Line& consumer = join(CONSUMER);
    Line& deaf = join(CONSUMER);
    Bytes const reply = frame(3, deaf.number(0), 1, std::string(tool::MAX_PAYLOAD, 'x'));
    for (int i = 0; i < 160; ++i)
        peer.say(reply);  // 10 MiB, more than a host keeps for it; none is read meanwhile
    EXPECT_EQ(counters().evicted, 1U) << "nobody waited for it";
    expectExchange(peer, consumer);
}

}  // namespace

}  // namespace vesk::e2e
