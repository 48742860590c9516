// Looking at the traffic of a running host, and at whom it serves.

#include <unistd.h>

#include <array>
#include <atomic>
#include <regex>

#include <vesk/client/Client.h>
#include <vesk/hostkit_asio/Tap.h>

#include "support/HostScene.h"

namespace vesk::e2e {

class TapTest : public HostScene {
protected:
    Process& tap(std::string const& more = "") {
        Process& tap = start("tap --host " + socket("host") + more);
        awaitText(tap, "tapping");
        return tap;
    }

    /** Ends it, which may have shown and missed so much, and returns its lines without times. */
    std::string endOf(Process& tap, std::string const& words) {
        tap.signal(SIGINT);
        expectEnd(tap, 0, words);
        return std::regex_replace(tap.output(), std::regex("(^|\n)\\d+\\.\\d{3} "), "$1");
    }

    static Bytes tapping(bool on) { return client::TapMessage{on}.encode(); }
};

TEST_F(TapTest, ShowsBothDirectionsWholeAndFiltered) {
    startHost(socket("channel"));
    Line& peer = acceptPeer();
    Line& consumer = join(CONSUMER);
    expectExchange(peer, consumer, 1);
    std::string const file = path("t.pcapng");
    Process& all = tap(" type=request type=reply");
    Process& some = tap(" dir=in business=test/test type=reply --json");
    Process& none = tap(" topic=virtualcomm");
    Process& capture = tap(" dir=out type=request -w " + file);
    Process& piped = tap(" dir=out type=request -w -");
    std::string const big(65535, 'x');
    expectExchange(peer, consumer, 2);
    consumer.say(data(Type::REQUEST, 0, 3, big));
    awaitHeard(peer, frame(2, 1, 3, big));
    awaitText(all, "msg 3");

    std::string const lines = endOf(all, "3 frames shown; 0 missed");
    EXPECT_EQ(std::regex_replace(lines, std::regex("serial \\d+"), "serial S"),
              "out request test/test from session 1, msg 2, serial S, 2 bytes: \"hi\"\n"
              "in  reply test/test to session 1, msg 2, serial S, 2 bytes: \"ho\"\n"
              "out request test/test from session 1, msg 3, serial S, 65535 bytes: \"" +
                      big.substr(0, 64) + "\"...\n");
    EXPECT_NE(endOf(some, "1 frames shown").find(R"("direction":"in","type":"reply")"),
              std::string::npos);
    EXPECT_EQ(endOf(none, "0 frames shown; 0 missed"), "");
    endOf(capture, "2 frames shown");
    endOf(piped, "2 frames shown");
    EXPECT_EQ(piped.output(), Process::content(file));
    Process& decoded = start("decode " + file);
    expectEnd(decoded, 0);
    EXPECT_NE(decoded.output().find("out request test/test from session 1, msg 3"),
              std::string::npos);
    // The empty record that opens the channel, and the two frames.
    std::string const capinfos = "command -v capinfos >/dev/null || exit 0; capinfos -c -M " +
                                 file + " | grep -q 'packets: *3$'";
    EXPECT_EQ(std::system(capinfos.c_str()), 0);

    for (auto const& [words, errors] :
         {std::pair{"dir", "is no filter; write business=TOPIC/BUSINESS"},
          {"dir=up", "fits no frame; for dir= there are: in, out"},
          {"business=test/none", "there are: "},
          {"--json -w x", "--write"}}) {
        expectEnd(start("tap --host unix:/none " + std::string(words)), 2, errors);
    }
    expectEnd(start("tap --host " + socket("host") + " -w " + path("no/file")), 1, "cannot write");
}

TEST_F(TapTest, ShowsHowManyBytesBelongToNoFrameAndWhere) {
    startHost(socket("channel"));
    Line& peer = acceptPeer();
    Process& all = tap(" dir=in");
    Process& json = tap(" --json");
    Process& requests = tap(" type=request");
    Bytes bytes = frame(2, 0, 1, "");
    bytes.resize(bytes.size() + 500, 'x');
    for (uint8_t const byte : frame(2, 0, 2, ""))
        bytes.push_back(byte);
    peer.say(bytes);
    for (Process* const tap : {&all, &json, &requests})
        awaitText(*tap, tap == &json ? "\"msgId\":2" : "msg 2");
    peer.say({'x'});
    for (Process* const tap : {&all, &json})
        awaitText(*tap, tap == &json ? "\"skipped\":1}" : "in  1 bytes");
    std::string const first = "in  request test/test from session 0, msg 1, serial 0, 0 bytes\n";
    std::string const second = "in  request test/test from session 0, msg 2, serial 0, 0 bytes\n";
    EXPECT_EQ(endOf(all, "2 frames shown; 0 missed; 501 bytes belong to no frame"),
              first + "in  500 bytes belong to no frame\n" + second +
                      "in  1 bytes belong to no frame\n");
    EXPECT_EQ(endOf(requests, "501 bytes"), first + second);
    EXPECT_NE(endOf(json, "501 bytes").find(R"("direction":"in","skipped":500})"),
              std::string::npos);
}

TEST_F(TapTest, WhatFindsNoRoomIsCounted) {
    int woken = 0;
    hostkit::Tap tap;
    tap.begin([&] { ++woken; });
    tap.out(Bytes(hostkit::Tap::MAX_BYTES));
    tap.skipped(5);
    tap.out(Bytes(12));
    tap.skipped(6);
    hostkit::Tap::Batch const lost = tap.take();
    EXPECT_EQ((std::array<uint64_t, 3>{lost.copies.size(), lost.missed, lost.skipped}),
              (std::array<uint64_t, 3>{0, 2, 11}));
    tap.skipped(7);
    EXPECT_EQ(tap.take().copies.at(0).skipped, 7U);
    EXPECT_EQ(woken, 2);
}

TEST_F(TapTest, NoOtherUserTaps) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be two users";
    startHost(socket("channel"), " --mode 0666");
    std::filesystem::permissions(path(""), std::filesystem::perms::all);
    ASSERT_EQ(::seteuid(65534), 0);
    Line& line = connect();
    ASSERT_EQ(::seteuid(0), 0);
    line.say(tapping(true));
    awaitClosed(line);
    EXPECT_EQ(line.heard()[0],
              client::encodeMessage(Type::REFUSED,
                                    "only the user of this host, and root, may tap it"));
}

TEST_F(TapTest, ATapThatDoesNotReadSlowsNobodyAndIsToldWhatItMissed) {
    startHost(socket("channel"));
    Line& peer = acceptPeer();
    Line& consumer = join(CONSUMER);
    Line& tap = connect();
    tap.say(tapping(true));
    tap.say(client::encodeMessage(Type::QUERY));
    awaitHeard(tap, 1);
    tap.stop();
    // Far more than a connection holds, both in the socket and in the host.
    constexpr int EXCHANGES = 100;
    std::string const big(60000, 'x');
    for (uint16_t id = 1; id <= EXCHANGES; ++id) {
        consumer.say(data(Type::REQUEST, 0, id, big));
        awaitHeard(peer, id);
        peer.say(frame(3, 1, id, "ho"));
        awaitHeard(consumer, 1U + id);
    }
    EXPECT_EQ(counters().evicted, 0U);
    tap.say(tapping(false));
    tap.go();
    auto const last = [&] {
        Bytes const& message = tap.heard().back();
        return *client::TappedMessage::decode({message.begin() + 5, message.end()});
    };
    await("the end of the tap", [&] { return tap.heard().size() > 1 && last().bytes.empty(); });
    size_t frames = 0;
    for (size_t i = 1; i + 1 < tap.heard().size(); ++i)
        frames += tap.heard()[i].size() > 60000 ? 1 : 0;
    EXPECT_GT(frames, 0U);
    EXPECT_LT(frames, size_t{EXCHANGES});
    EXPECT_GE(frames + last().missed, size_t{EXCHANGES});
    // It is over.
    size_t const heard = tap.heard().size();
    expectExchange(peer, consumer, 1000);
    tap.say(client::encodeMessage(Type::QUERY));
    awaitHeard(tap, heard + 1);
    EXPECT_EQ(tap.heard().size(), heard + 1);

    tap.say(tapping(true));
    tap.say(tapping(true));
    awaitClosed(tap);
    Bytes const& refused = tap.heard().back();
    EXPECT_EQ(std::string(refused.begin() + 5, refused.end()), "this client taps already");
}

TEST_F(TapTest, EachTapperGetsItsOwnAndTheWireIsAsDescribed) {
    startHost(socket("channel"));
    Line& peer = acceptPeer();
    auto const begin = [&]() -> Line& {
        Line& line = connect();
        line.say(tapping(true));
        line.say(client::encodeMessage(Type::QUERY));
        awaitHeard(line, 1);
        return line;
    };
    auto const noise = [&](uint16_t id) { peer.say(frame(2, 0, id, "")); };
    Line& first = begin();
    noise(1);
    awaitHeard(first, 2);
    Line& second = begin();
    noise(2);
    awaitHeard(first, 3);
    awaitHeard(second, 2);
    Bytes const& heard = second.heard()[1];
    EXPECT_EQ(Bytes(heard.begin(), heard.begin() + 5), (Bytes{30, 0, 0, 0, 14}));
    EXPECT_EQ(Bytes(heard.begin() + 13, heard.end()),
              (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0x55, 0, 0, 2, 1, 2, 0, 0, 0, 0, 2, 0}));
    EXPECT_EQ(first.heard()[2], heard);
    first.close();
    noise(3);
    awaitHeard(second, 3);
    EXPECT_EQ(tapping(true), (Bytes{2, 0, 0, 0, 13, 1}));
    EXPECT_EQ((client::SkippedMessage{1, 2}.encode()),
              (Bytes{17, 0, 0, 0, 16, 1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
    for (Bytes const& wrong :
         {Bytes{1, 0, 0, 0, 13}, {2, 0, 0, 0, 13, 2}, {3, 0, 0, 0, 13, 1, 0}}) {
        Line& line = connect();
        line.say(wrong);
        awaitClosed(line);
        EXPECT_EQ(line.heard()[0],
                  client::encodeMessage(Type::REFUSED, "a TAP message is not of its form"));
    }
    EXPECT_FALSE(client::TappedMessage::decode(Bytes(16)));
}

TEST_F(TapTest, WhoeverIsWokenMayTakeAtOnceAndIsNotWokenBehindTheEnd) {
    hostkit::Tap tap;
    size_t taken = 0;
    tap.begin([&] { taken += tap.take().copies.size(); });
    tap.out({1});
    tap.out({2});
    EXPECT_EQ(taken, 2U);
    tap.end();
    tap.out({3});
    EXPECT_EQ(taken, 2U);
    EXPECT_TRUE(tap.take().copies.empty());
}

TEST_F(TapTest, AClientTapsAgainWhenItsHostIsBack) {
    Process& host = startHost(socket("channel"));
    Line& peer = acceptPeer();
    client::Client::Options options;
    options.reconnect = true;
    std::atomic<int> frames{0};
    client::Client client(path("host"), options);
    client.tap([&](client::TappedMessage const& tapped) { frames += tapped.out ? 100 : 1; });
    EXPECT_THROW(client.tap({}), std::logic_error);
    client.query();
    peer.say(frame(2, 0, 1, ""));
    await("a frame", [&] { return frames % 100 == 1; });
    host.signal(SIGKILL);
    await("the end of the host", [&] { return !host.ending().empty(); });
    startHost(socket("channel"));
    Line& again = acceptPeer();
    await("the client", [&] { return client.connected(); });
    client.query();
    again.say(frame(2, 0, 2, ""));
    await("another frame", [&] { return frames % 100 == 2; });
    EXPECT_EQ(client.untap(), 0U);
}

TEST_F(TapTest, ListTellsWhatAHostServesAndToHowMany) {
    startHost(socket("channel"), " --topic test");
    acceptPeer();
    join(PROVIDER);
    join(CONSUMER);
    join(CONSUMER);
    Process& table = start("list --host " + socket("host"));
    expectEnd(table, 0);
    EXPECT_TRUE(std::regex_search(table.output(), std::regex("\ntest/test +2 +1  yes +1 +2\n")))
            << table.output();
    EXPECT_TRUE(std::regex_search(table.output(), std::regex("/vm +1 +1  no +0 +0\n")));
    Process& json = start("list --json --host " + socket("host"));
    expectEnd(json, 0);
    EXPECT_NE(
            json.output().find(R"("name":"test","id":2,"served":true,"businesses":[{"name":"test",)"
                               R"("id":1,"providers":1,"consumers":2}])"),
            std::string::npos)
            << json.output();
    EXPECT_EQ(json.output().rfind(R"({"topics":[{"name":"virtualcomm","id":1,"served":false,)", 0),
              0U);
}

}  // namespace vesk::e2e
