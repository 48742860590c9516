// What a host records of its channel, as vesk decode reads it.

#include <regex>

#include <vesk/hostkit/CaptureWriter.h>
#include <vesk/testkit/FarPeer.h>

#include "support/Scene.h"

namespace vesk::e2e {

class CaptureTest : public Scene {
protected:
    Process& startHost(std::string const& more) {
        Process& host = start("host --channel " + socket("channel") + " --clients " +
                              socket("host") + " --capture " + mFile + more);
        awaitText(host, "serving");
        return host;
    }

    static Bytes frame(uint8_t type, uint16_t msgId) {
        return testkit::FarPeer::encode({2, 1, type, 1, 0, msgId, {'h', 'i'}});
    }

    /** The lines of the capture without the times; acknowledgements come when they come. */
    std::string decoded(int status) {
        Process& decode = start("decode " + mFile);
        expectEnd(decode, status);
        std::string const lines =
                std::regex_replace(decode.output(), std::regex("\\d+\\.\\d{3} "), "");
        return std::regex_replace(lines, std::regex("[^\n]*acknowledgement[^\n]*\n"), "");
    }

    std::string const mFile = path("a.pcapng");
    hostkit::UnixListener mListener{mIo, path("channel")};
};

TEST_F(CaptureTest, HasWhatCameAndWhatLeftUntilTheHostEnds) {
    Process& host = startHost("");
    Line& peer = accept(mListener, Line::FRAMES);
    Line& consumer = connect();
    consumer.say(joining(CONSUMER));
    awaitHeard(consumer, 1);
    consumer.say(data(Type::REQUEST, 0, 300, "hi"));
    awaitHeard(peer, frame(2, 300));
    peer.say({'n', 'o', 'i', 's', 'e'});
    Bytes const reply = frame(3, 300);
    peer.say({reply.begin(), reply.begin() + 9});
    peer.say({reply.begin() + 9, reply.end()});
    awaitHeard(consumer, 2);
    peer.say({reply.begin(), reply.begin() + 12});
    peer.close();
    Line& again = accept(mListener, Line::FRAMES);
    again.say(frame(3, 301));
    awaitHeard(consumer, 3);
    host.signal(SIGTERM);
    expectEnd(host, 0);
    EXPECT_EQ(decoded(1),
              "out request test/test from session 1, msg 300, serial 0, 2 bytes: \"hi\"\n"
              "in  5 bytes belong to no frame\n"
              "in  reply test/test to session 1, msg 300, serial 0, 2 bytes: \"hi\"\n"
              "in  reply test/test to session 1, msg 301, serial 0, 2 bytes: \"hi\"\n"
              "in  cut short: 12 of 14 bytes of: reply test/test\n"
              "in  12 bytes belong to no frame\n");
    auto const rights = std::filesystem::status(mFile).permissions();
    EXPECT_EQ(rights & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(CaptureTest, EndsAtItsLimitAndTheHostGoesOn) {
    Process& host = startHost(" --capture-limit 300");
    Line& peer = accept(mListener, Line::FRAMES);
    Line& provider = connect();
    provider.say(joining(PROVIDER));
    awaitHeard(provider, 1);
    for (uint16_t id = 1; id <= 4; ++id) {
        peer.say(frame(2, id));
        awaitHeard(provider, 1U + id);
    }
    awaitText(host, "a.pcapng ends here: it has its limit of 300 bytes\n");
    EXPECT_LE(std::filesystem::file_size(mFile), 300U);
    EXPECT_EQ(decoded(0).find("in  request test/test from session 1, msg 1, "), 0U);
    EXPECT_EQ(host.errors().find("ends here"), host.errors().rfind("ends here")) << "once";
    std::string const host2 = "host --channel tcp:1 --clients " + socket("other");
    expectEnd(start(host2 + " --capture " + path("none/x")), 1, "cannot write the capture");
    expectEnd(start(host2 + " --capture " + path("x") + " --capture-limit 9"), 1, "limit of 9");
    expectEnd(start(host2 + " --capture-limit 900"), 2, "--capture");
    if (std::filesystem::exists("/dev/full")) {
        expectEnd(start(host2 + " --capture /dev/full"), 1, "No space left");
    }
}

TEST_F(CaptureTest, WhatIsNoCaptureOfAChannelIsSaid) {
    hostkit::CaptureWriter writer;
    Bytes const begin = hostkit::CaptureWriter::begin("x"), link = writer.link("y", 0);
    Bytes const one = frame(2, 1);
    Bytes const record = writer.record(hostkit::FrameText::Direction::IN, 1500, &one[0], 14);
    for (auto const& [place, byte, errors] :
         {std::tuple{size_t{8}, 9, "another byte order"},
          {begin.size() + 8, 1, "its link type is 1; that of a channel is 147"},
          {begin.size() + link.size() + 4, 3, "a block cannot have 3 bytes"},
          {begin.size() + link.size() + 8, 5, "of an interface that is not described"},
          {begin.size() + link.size() + 20, 99, "a packet is longer than its block"},
          {begin.size() + 18, 99, "an option is longer than its block"}}) {
        Bytes bytes = begin;
        bytes.insert(bytes.end(), link.begin(), link.end());
        bytes.insert(bytes.end(), record.begin(), record.end());
        bytes[place] = static_cast<uint8_t>(byte);
        std::ofstream(mFile).write(reinterpret_cast<char const*>(bytes.data()),
                                   static_cast<std::streamsize>(bytes.size()));
        expectEnd(start("decode " + mFile), 1, errors);
    }
}

TEST_F(CaptureTest, TheRestOfAFrameMayComeWithinASecond) {
    std::string const late =
            "in  cut short: 9 bytes of a header\nin  9 bytes belong to no frame\n"
            "in  5 bytes belong to no frame\n";
    for (auto const& [micros, status, expected] :
         {std::tuple{6000999U, 0, std::string("in  request test/test from session 1, msg 1, ")},
          {6001000U, 1, late}}) {
        hostkit::CaptureWriter writer;
        Bytes const one = frame(2, 1);
        std::string text;
        for (Bytes const& bytes :
             {writer.begin("x"), writer.link("y", 5001000),
              writer.record(hostkit::FrameText::Direction::IN, 5001000, &one[0], 9),
              writer.record(hostkit::FrameText::Direction::IN, micros, &one[9], 5),
              Bytes{6, 0, 0, 0}})
            text.append(bytes.begin(), bytes.end());
        std::ofstream(mFile) << text;
        EXPECT_EQ(decoded(status).substr(0, expected.size()), expected);
        expectEnd(start("decode " + mFile), status, "the capture ends in the middle of a block");
    }
}

}  // namespace vesk::e2e
