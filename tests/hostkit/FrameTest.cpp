#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/FrameText.h>
#include <vesk/testkit/FarPeer.h>

using namespace vesk;
using namespace vesk::hostkit;
using testkit::FarPeer;
using Bytes = FarPeer::Bytes;

VeskConfig const CATALOGUE;

/** The bytes of what these letters name. */
Bytes bytesOf(std::string const& letters) {
    static std::map<char, Bytes> const PIECES = {
            {'k', FarPeer::encode({2, 1, 2, 777, 888, 999, {1, 2}})},
            {'t', FarPeer::encode({2, 1, 4, 7, 8, 9, {}})},
            {'n', FarPeer::encode({2, 1, 3, 7, 8, 9, FarPeer::encode({2, 1, 2, 7, 8, 9, {1}})})},
            {'F', FarPeer::encode({2, 1, 2, 7, 8, 9, Bytes(65535, 'U')})},
            {'a', FarPeer::encode({0xAA, 0xAA, 1, 2, 0, 0xAA, Bytes(8)})},
            {'b', FarPeer::encode({0xAA, 0xAA, 1, 256, 0, 0xAA, Bytes(1025)})},
            {'u', FarPeer::encode({9, 1, 2, 7, 8, 9, {}})},
            {'v', FarPeer::encode({2, 99, 2, 7, 8, 9, {}})},
            {'w', FarPeer::encode({0xAA, 0xAA, 1, 1, 0, 0xAA, Bytes(8)})},
            {'W', FarPeer::encode({0xAA, 0xAA, 1, 3, 0, 0xAA, Bytes(8)})},
            {'x', FarPeer::encode({0xAA, 1, 1, 2, 0, 0xAA, Bytes(8)})},
            {'X', FarPeer::encode({2, 0xAA, 1, 2, 0, 0xAA, Bytes(8)})},
            {'y', FarPeer::encode({2, 1, 1, 0, 8, 9, {}})},
            {'L', {'U', 0, 8, 2, 1, 2, 0, 0, 0, 0, 0, 0}},  // whose rest never comes
            {'U', {'U'}},
            {'g', {0, 1}},
    };
    Bytes bytes;
    for (char const letter : letters)
        bytes.insert(bytes.end(), PIECES.at(letter).begin(), PIECES.at(letter).end());
    return bytes;
}

TEST(FrameReaderTest, GivesEachFrameAtOnceAndTheHiddenOnesInTheSilence) {
    // A stream, what it gives at once, and, where a frame is awaited, what the silence gives.
    std::tuple<std::string, std::string, std::string> const cases[] = {
            {"kuvwxytabnFkg", "kuvwxytabnFk", ""},
            {"ugkgagbgtgn", "ukabtn", ""},
            {"gugvgwgWgxgXgykv", "kv", ""},
            {"kLkuktg", "k", "kukt"},
            {"LukUkn", "", "kkn"},
            {"gULnkU", "", "nk"},
            {"LLkgL", "", "k"},
            {"U", "", ""},
            {"g" + std::string(1 << 17, 'U'), "", ""}};
    Bytes found;
    FrameReader reader(CATALOGUE, [&](auto const& frame) {
        Bytes bytes;
        frame->serialze(bytes);
        found.insert(found.end(), bytes.begin(), bytes.end());
    });
    for (size_t const chunk :
         {size_t{1}, size_t{5}, size_t{12}, size_t{13}, size_t{700}, size_t{1} << 22}) {
        for (auto const& [letters, atOnce, inSilence] : cases) {
            Bytes const stream = bytesOf(letters);
            uint64_t const skipped = reader.skippedBytes();
            found.clear();
            for (size_t at = 0; at < stream.size(); at += chunk)
                reader.feed(&stream[at], std::min(chunk, stream.size() - at));
            EXPECT_TRUE(found == bytesOf(atOnce)) << letters.substr(0, 20) << chunk;
            reader.abandon();
            EXPECT_TRUE(found == bytesOf(atOnce + inSilence)) << letters.substr(0, 20) << chunk;
            EXPECT_EQ(reader.skippedBytes() - skipped, stream.size() - found.size());
            EXPECT_FALSE(reader.incomplete());
        }
        uint64_t const skipped = reader.skippedBytes();
        found.clear();
        reader.feed(bytesOf("gk").data(), 5);
        reader.reset();  // a new stream begins
        EXPECT_EQ(reader.skippedBytes() - skipped, 5U);
        reader.feed(bytesOf("uk").data(), 13);
        EXPECT_TRUE(reader.incomplete() && found == bytesOf("u"));
        reader.reset();
    }
}

// frames.txt, beside this file: for each frame its bytes, the line and the JSON object for it.
TEST(FrameTextTest, NamesWhatItKnowsAndEscapesWhatATerminalWouldActOn) {
    FrameText const text(CATALOGUE, {8, 2, false}), inHex(CATALOGUE, {2, 2, true});
    int frames = 0;
    std::ifstream file(VESK_HOSTKIT_TESTS "/frames.txt");
    for (std::string hex, line, json; getline(getline(getline(file, hex), line), json); ++frames) {
        std::istringstream digits(hex);
        std::istream_iterator<unsigned> const numbers(digits >> std::hex), end;
        Bytes const bytes(numbers, end);
        VeskFrame frame;
        frame.unSerialze(bytes);
        FrameText::Prefix prefix{12005, FrameText::Direction::OUT};
        if (frames > 0) prefix = {std::nullopt, FrameText::Direction::IN};
        EXPECT_EQ(text.line(frame, prefix), line);
        EXPECT_EQ(text.json(frame, prefix), json);
        frame.msgType = 0;
        EXPECT_EQ(inHex.line(frame).find("0x") < 99, bytes.size() > 12);
        EXPECT_EQ(inHex.json(frame).find(R"(","cut":true)") < 999, bytes.size() > 12);
    }
    EXPECT_EQ(frames, 7);
    VeskFrame foreign;
    for (int const byte : {0x80, 0xBF, 0xC1, 0xF5, 0xFF}) {  // they begin no character
        foreign.data = {'a', 'b', 'c', 'd', uint8_t(byte)};
        EXPECT_NE(text.json(foreign).find("\"hex\""), std::string::npos);
    }
    std::string const kept =
            "ä\xC2\xA0\xE0\xA0\x80€\xED\x9F\xBF\xEE\x80\x80😀\xF0\x90\x80\x80\xF4\x8F\xBF\xBF ~"
            "\u061B\u061D\u200D\u2010\u2027\u202F\u2065\u206A";
    EXPECT_EQ(FrameText::escape(kept), kept);
    EXPECT_EQ(FrameText::escape("\xC3x\xE2\x80x\r\t"), "\\xC3x\\xE2\\x80x\\r\\t");
    std::string const escaped =
            "\x1F\x7F\xC2\x80\xC2\x9F\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F\xE2\x80\xAA\xE2\x80\xAE"
            "\xE2\x80\xA8\xE2\x80\xA9\xBF\xE2\x81\xA6\xE2\x81\xA9\xC1\xBF\xE0\x9F\xBF\xF0\x8F\xBF"
            "\xBF\xED\xA0\x80\xF4\x90\xC3";
    EXPECT_EQ(FrameText::escape(escaped).size(), 4 * escaped.size());
}
