#include <gtest/gtest.h>

#include <vesk/hostkit/FrameReader.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/Random.h>

using namespace vesk;
using Bytes = testkit::FarPeer::Bytes;
using Frames = std::vector<Bytes>;
constexpr auto encode = &testkit::FarPeer::encode;

VeskConfig const CATALOGUE;

Bytes operator+(Bytes left, Bytes const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Reading {
    Frames frames;
    hostkit::FrameReader reader{
            CATALOGUE, [this](auto const& frame) { frame->serialze(frames.emplace_back()); }};
};

/** What lies between two silences, read by somebody who sees all of it at once. */
struct Stretch {
    explicit Stretch(Bytes const& bytes) {
        bool inStep = true;
        for (size_t at = 0, size = 0; at < bytes.size(); at += inStep ? size : 1) {
            uint8_t const* const head = &bytes[at];
            size_t const left = bytes.size() - at;
            size = left < 12 ? 13 : 12 + head[1] + head[2] * size_t{256};
            bool const believed = *head == 'U' && (left < 12 || inStep || plausible(head));
            if (believed && size > left) prompt = std::min(prompt, frames.size());
            inStep = believed && size <= left;
            inStep ? (void)frames.emplace_back(head, head + size) : (void)++skipped;
        }
    }
    static bool plausible(uint8_t const* at) {
        bool const count = (at[1] + at[2] * 256) / 4 == at[6] + at[7] * 256;
        return at[5] == 1 ? at[3] == 0xAA && at[4] == 0xAA && count
                          : CATALOGUE.isBussinessSupport(at[3], at[4]);
    }
    Frames frames;
    size_t prompt = SIZE_MAX;  // how many of the frames come before one that is awaited in vain
    uint64_t skipped = 0;
};

/** Whole frames known and unknown, frames in frames, cut ones, garbage, lengths that are not so. */
Bytes hostile(testkit::Random& random) {
    testkit::FarPeer::Frame frame{2, 1, 2, uint16_t(random.below(3)), 4, 0x5555, {}};
    frame.payload = Bytes(random.below(40), uint8_t(random.below(2) ? 'U' : 1));
    if (random.chance(300)) frame.topicId = uint8_t(random.below(4));
    if (random.chance(300)) frame.msgType = uint8_t(random.below(6));
    if (random.chance(200)) frame = testkit::FarPeer::ackFrame({{1, 2}, {3, 4}});
    if (random.chance(100)) frame.payload = encode({2, 1, 3, 7, 8, 9, {10}});
    Bytes bytes = encode(frame);
    if (random.chance(150)) bytes[random.below(bytes.size())] ^= uint8_t(random.between(1, 255));
    if (random.chance(30)) bytes[1] = bytes[2] = 0xFF;
    if (random.chance(200)) bytes.resize(random.below(bytes.size()));
    return bytes.empty() ? Bytes(random.below(30), 'U') : bytes;
}

TEST(FrameReaderTest, AnyStreamInAnyChunksGivesEachFrameAtOnceAndTheHiddenOnesInTheSilence) {
    for (uint64_t seed = 0; seed < 3000; ++seed) {
        testkit::Random random(seed);
        Reading reading;
        for (size_t silence = random.between(1, 4); silence > 0; --silence) {
            Bytes bytes;
            for (size_t pieces = random.below(12); pieces > 0; --pieces)
                bytes = bytes + hostile(random);
            uint64_t const skipped = reading.reader.skippedBytes();
            reading.frames.clear();
            size_t const most = random.between(1, 300);
            for (size_t at = 0, size = 0; at < bytes.size(); at += size) {
                size = std::min(bytes.size() - at, random.between(1, most));
                reading.reader.feed(&bytes[at], size);
            }
            Stretch const expected(bytes);
            ASSERT_EQ(reading.reader.incomplete(), expected.prompt != SIZE_MAX) << "seed " << seed;
            ASSERT_EQ(reading.frames.size(), std::min(expected.prompt, expected.frames.size()));
            reading.reader.abandon();
            ASSERT_EQ(reading.frames, expected.frames) << "seed " << seed;
            ASSERT_EQ(reading.reader.skippedBytes(), skipped + expected.skipped) << "seed " << seed;
        }
    }
}

TEST(FrameReaderTest, AfterGarbageWhatTheLibraryWouldActOnIsFoundAtOnce) {
    Bytes const oddAck{'U', 9, 0, 0xAA, 0xAA, 1, 2, 0, 0, 0, 0xAA, 0, 0, 0, 1, 0, 0, 0, 2, 0, 3};
    Bytes const unknown = encode({9, 9, 9, 0, 0, 0, {}});  // found because the reader is in step
    for (Bytes const& first : {encode({1, 13, 200, 0, 0, 0, Bytes(65535)}), oddAck}) {
        for (Bytes const& garbage :
             {Bytes(1), Bytes(size_t{1} << 22, 'U'), encode({2, 1, 1, 0, 0, 0, {}}),
              encode({2, 2, 2, 0, 0, 0, {}}), encode({0xAA, 0xAA, 1, 1, 0, 0, {}}),
              encode({0xAA, 1, 1, 0, 0, 0, {}}), encode({1, 0xAA, 1, 0, 0, 0, {}})}) {
            Reading reading;
            Bytes const bytes = Bytes{'x'} + garbage + first + unknown + Bytes{'U'};
            reading.reader.feed(bytes.data(), bytes.size());
            EXPECT_EQ(reading.frames, (Frames{first, unknown}));
            EXPECT_EQ(reading.reader.skippedBytes(), 1 + garbage.size());
            reading.reader.reset();  // in the middle of a frame: a new stream begins
            reading.reader.feed(unknown.data(), unknown.size());
            EXPECT_EQ(reading.frames.size(), 3U);
            EXPECT_EQ(reading.reader.skippedBytes(), 2 + garbage.size());
        }
    }
}
