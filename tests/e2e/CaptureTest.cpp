// What a host records of its channel, as vesk decode reads it.

#include <regex>

#include <vesk/hostkit/CaptureWriter.h>
#include <vesk/testkit/FarPeer.h>

#include "CaptureReader.h"
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

/** Blocks as other programs write them, which is not as CaptureWriter does. */
class ForeignCapture {
public:
    ForeignCapture& u16(uint32_t value) {
        for (int shift = 0; shift < 16; shift += 8)
            mBytes.push_back(uint8_t(value >> shift & 0xFF));
        return *this;
    }
    ForeignCapture& u32(uint32_t value) { return u16(value & 0xFFFF).u16(value >> 16); }
    ForeignCapture& option(uint16_t code, Bytes const& value) {
        u16(code).u16(uint32_t(value.size()));
        mBytes.insert(mBytes.end(), value.begin(), value.end());
        return pad();
    }
    /** Puts a block's type and length around what has been written since the last one. */
    ForeignCapture& endBlock(uint32_t type) {
        Bytes const body(mBytes.begin() + mBegin, mBytes.end());
        mBytes.resize(size_t(mBegin));
        u32(type).u32(uint32_t(body.size() + 12));
        mBytes.insert(mBytes.end(), body.begin(), body.end());
        u32(uint32_t(body.size() + 12));
        mBegin = ptrdiff_t(mBytes.size());
        return *this;
    }
    ForeignCapture& section() { return u32(0x1A2B3C4D).u32(1).u32(~0U).u32(~0U).endBlock(SECTION); }
    ForeignCapture& link() { return u16(147).u16(0).u32(0); }
    ForeignCapture& packet(uint32_t link, uint64_t ticks, Bytes const& data) {
        u32(link)
                .u32(uint32_t(ticks >> 32))
                .u32(uint32_t(ticks))
                .u32(uint32_t(data.size()))
                .u32(99);
        mBytes.insert(mBytes.end(), data.begin(), data.end());
        return pad();
    }

    /** Time, link, direction and bytes of each packet; then whether something is left, or why. */
    std::string read(size_t chunk) const {
        tool::CaptureReader reader;
        std::string text;
        try {
            for (size_t at = 0; at < mBytes.size(); at += chunk) {
                reader.feed(&mBytes[at], std::min(chunk, mBytes.size() - at));
                while (auto const record = reader.next()) {
                    text += std::to_string(record->micros) + '/' + std::to_string(record->link) +
                            (record->direction ? "<>"[int(*record->direction)] : '-') +
                            std::string(record->bytes.begin(), record->bytes.end()) + ' ';
                }
            }
        } catch (std::runtime_error const& error) {
            return text + error.what();
        }
        return text + (reader.incomplete() ? "..." : "");
    }

    static constexpr uint32_t SECTION = 0x0A0D0D0A, LINK = 1, NAMES = 4, PACKET = 6;

private:
    ForeignCapture& pad() {
        while (mBytes.size() % 4 != 0)
            mBytes.push_back(0xEE);
        return *this;
    }

    Bytes mBytes;
    ptrdiff_t mBegin = 0;
};

TEST_F(CaptureTest, CapturesOfOtherProgramsAreRead) {
    using F = ForeignCapture;
    Bytes const flagsIn{1, 0, 0, 0}, flagsOut{0xFE, 0, 0, 0}, flagsNone{0, 9, 9, 9}, one{7};
    ForeignCapture capture;
    capture.section();
    capture.link().option(2, one).option(9, {9}).option(0, {}).endBlock(F::LINK);
    capture.link().option(9, {3, 3}).endBlock(F::LINK);                 // no resolution of one byte
    capture.link().option(2, {1, 2}).option(9, {0}).endBlock(F::LINK);  // seconds
    capture.u32(5).endBlock(F::NAMES);
    capture.packet(0, 5000000999, {'a', 'b', 'c'}).option(1, one).option(2, flagsIn);
    capture.option(0, {}).option(2, flagsOut).endBlock(F::PACKET);
    capture.packet(1, 4294967296000000, {}).option(2, {1, 0}).option(2, flagsOut);
    capture.endBlock(F::PACKET);
    capture.packet(2, 3, {'d'}).option(2, flagsNone).endBlock(F::PACKET);
    capture.packet(2, 4, {'e', 'f', 'g', 'h'}).endBlock(F::PACKET);
    std::string const read = "5000000/0<abc 4294967296000000/1> 3000000/2-d 4000000/2-efgh ";
    for (size_t const chunk : {1U, 7U, 1000U})
        EXPECT_EQ(capture.read(chunk), read);
    EXPECT_EQ(ForeignCapture(capture).u32(F::PACKET).read(99), read + "...");
    EXPECT_EQ(ForeignCapture(capture).u32(7).u32(F::PACKET).u32(16).read(99),
              read + "the capture cannot be read: a block cannot have 6 bytes");

    // A section begins with no links.
    capture.section().packet(0, 1, {}).endBlock(F::PACKET);
    EXPECT_EQ(capture.read(50), read + "the capture cannot be read: a packet is of an interface "
                                       "that is not described");
    for (auto const& [digits, expected] :
         {std::pair{18, "1000000/0-x "},
          {19,
           "the capture cannot be read: it counts time in a unit that is not a power of ten"}}) {
        ForeignCapture fine;
        fine.section().link().option(9, {uint8_t(digits)}).endBlock(F::LINK);
        fine.packet(0, 1000000000000000000, {'x'}).endBlock(F::PACKET);
        EXPECT_EQ(fine.read(999), expected);
    }
    for (auto const& [type, size, why] :
         {std::tuple{F::LINK, 4, "an interface block is too short"},
          {F::PACKET, 16, "a packet block is too short"},
          {F::NAMES, 1 << 24, "a block cannot have 16777228 bytes"}}) {
        ForeignCapture wrong;
        wrong.section();
        for (int i = 0; i < size; i += 4)
            wrong.u32(147);
        wrong.endBlock(type);
        EXPECT_EQ(wrong.read(1 << 25), std::string("the capture cannot be read: ") + why);
    }
}

}  // namespace vesk::e2e
