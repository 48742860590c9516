#include <gtest/gtest.h>

#include <vesk/hostkit/FrameReader.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/Random.h>

using namespace vesk;
using testkit::FarPeer;
using Bytes = FarPeer::Bytes;
using Frames = std::vector<Bytes>;

VeskConfig const CATALOGUE;

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
    FarPeer::Frame frame{2, 1, 2, uint16_t(random.below(3)), 4, 0x5555, {}};
    frame.payload = Bytes(random.below(40), uint8_t(random.below(2) ? 'U' : 1));
    if (random.chance(5)) frame.payload.resize(65535, 'U');
    if (random.chance(200)) frame = FarPeer::ackFrame({{1, 2}, {3, 4}});
    if (random.chance(300)) frame.topicId = uint8_t(random.below(4));
    if (random.chance(100)) frame.businessId = uint8_t(random.below(4));
    if (random.chance(300)) frame.msgType = uint8_t(random.below(6));
    if (random.chance(100)) frame.payload.resize(random.below(20));
    if (random.chance(100)) frame.payload = FarPeer::encode({2, 1, 3, 7, 8, 9, {10}});
    Bytes bytes = FarPeer::encode(frame);
    if (random.chance(150)) bytes[random.below(bytes.size())] ^= uint8_t(random.between(1, 255));
    if (random.chance(200)) bytes.resize(random.below(bytes.size()));
    return bytes.empty() ? Bytes(random.below(30), 'U') : bytes;
}

TEST(FrameReaderTest, AnyStreamInAnyChunksGivesEachFrameAtOnceAndTheHiddenOnesInTheSilence) {
    for (uint64_t seed = 0; seed < 4000; ++seed) {
        testkit::Random random(seed);
        Frames frames;
        hostkit::FrameReader reader(
                CATALOGUE, [&](auto const& frame) { frame->serialze(frames.emplace_back()); });
        for (size_t silence = random.between(1, 4); silence > 0; --silence) {
            Bytes bytes(seed == 0 ? size_t{1} << 22 : 0, 'U');  // in no time but a linear one
            for (size_t pieces = random.below(12); pieces > 0; --pieces) {
                Bytes const piece = hostile(random);
                bytes.insert(bytes.end(), piece.begin(), piece.end());
            }
            uint64_t const skipped = reader.skippedBytes();
            size_t const most = random.between(1, 300);
            frames.clear();
            for (size_t at = 0, size = 0; at < bytes.size(); at += size) {
                size = std::min(bytes.size() - at, random.between(1, most));
                reader.feed(&bytes[at], size);
            }
            Stretch const expected(bytes);
            ASSERT_EQ(reader.incomplete(), expected.prompt != SIZE_MAX) << "seed " << seed;
            ASSERT_EQ(frames.size(), std::min(expected.prompt, expected.frames.size()));
            reader.abandon();
            ASSERT_EQ(frames, expected.frames) << "seed " << seed;
            ASSERT_EQ(reader.skippedBytes(), skipped + expected.skipped) << "seed " << seed;
        }
        Bytes const unknown = FarPeer::encode({9, 9, 9, 0, 0, 0, {}});
        reader.feed(unknown.data(), 5);
        reader.reset();  // a new stream begins
        reader.feed(unknown.data(), unknown.size());
        ASSERT_EQ(frames.back(), unknown);
    }
}
