#include <gtest/gtest.h>

#include <vesk/hostkit/FrameReader.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/Random.h>

namespace vesk::hostkit {

namespace {

using testkit::FarPeer;
using testkit::Random;
using Bytes = FarPeer::Bytes;
using Frames = std::vector<Bytes>;

VeskConfig const CATALOGUE;

Bytes operator+(Bytes left, Bytes const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes repeated(size_t count, Bytes const& bytes) {
    Bytes all;
    while (count-- > 0)
        all.insert(all.end(), bytes.begin(), bytes.end());
    return all;
}

struct Reading {
    FrameReader reader{CATALOGUE, [this](std::shared_ptr<VeskFrame> const& frame) {
                           frames.emplace_back();
                           frame->serialze(frames.back());
                       }};
    Frames frames;

    void feed(Bytes const& bytes) { reader.feed(bytes.data(), bytes.size()); }
};

/** What has to come out, told at each silence from all bytes of the stretch before it. */
struct Expected {
    Frames frames;
    uint64_t skipped = 0;

    void hearThenSilence(Bytes const& bytes) {
        bool inStep = true;
        for (size_t at = 0; at < bytes.size();) {
            size_t const size = frameSize(&bytes[at], bytes.size() - at, inStep);
            inStep = size > 0;
            if (inStep) frames.emplace_back(&bytes[at], &bytes[at] + size);
            skipped += inStep ? 0 : 1;
            at += inStep ? size : 1;
        }
    }

    /** Of a whole frame that starts here; 0: none does. */
    static size_t frameSize(uint8_t const* at, size_t left, bool inStep) {
        if (left < 12 || at[0] != 'U') return 0;
        size_t const payload = at[1] + at[2] * size_t{256};
        bool const ack = at[5] == 1 && at[3] == 0xAA && at[4] == 0xAA &&
                         payload / 4 == at[6] + at[7] * size_t{256};
        bool const data = at[5] != 1 && CATALOGUE.isBussinessSupport(at[3], at[4]);
        return (inStep || ack || data) && payload <= left - 12 ? 12 + payload : 0;
    }
};

/** A piece of a hostile stream: whole frames known and unknown, cut ones, garbage, false headers. */
Bytes piece(Random& random) {
    FarPeer::Frame frame{2,
                         1,
                         2,
                         uint16_t(random.below(3)),
                         4,
                         0x5555,
                         Bytes(random.below(40), uint8_t(random.below(2) ? 'U' : 1))};
    if (random.chance(300)) frame.topicId = uint8_t(random.below(4));
    if (random.chance(300)) frame.msgType = uint8_t(random.below(6));
    if (random.chance(200)) frame = FarPeer::ackFrame({{1, 2}, {3, 4}});
    if (random.chance(100)) frame.payload = FarPeer::encode({2, 1, 3, 7, 8, 9, {10}});
    Bytes bytes = FarPeer::encode(frame);
    if (random.chance(150)) bytes[random.below(bytes.size())] ^= uint8_t(random.between(1, 255));
    if (random.chance(30)) bytes[1] = bytes[2] = 0xFF;
    if (random.chance(200)) bytes.resize(random.below(bytes.size()));
    return bytes.empty() ? repeated(random.below(30), {'U'}) : bytes;
}

TEST(FrameReaderTest, EveryStreamGivesTheSameFramesInAnyChunksAndSilences) {
    for (uint64_t seed = 0; seed < 3000; ++seed) {
        Random random(seed);
        Reading reading;
        Expected expected;
        for (size_t silence = random.between(1, 4); silence > 0; --silence) {
            Bytes stretch;
            for (size_t pieces = random.below(12); pieces > 0; --pieces)
                stretch = stretch + piece(random);
            size_t const chunk = random.chance(300) ? 1 : random.between(1, 300);
            for (size_t at = 0, size = 0; at < stretch.size(); at += size) {
                size = std::min(stretch.size() - at, random.between(1, chunk));
                reading.reader.feed(&stretch[at], size);
            }
            reading.reader.abandon();
            expected.hearThenSilence(stretch);
            ASSERT_EQ(reading.frames, expected.frames) << "seed " << seed;
            ASSERT_EQ(reading.reader.skippedBytes(), expected.skipped) << "seed " << seed;
            ASSERT_FALSE(reading.reader.incomplete());
        }
    }
}

Bytes const KNOWN = FarPeer::encode({2, 1, 2, 7, 8, 9, {10}});

TEST(FrameReaderTest, InStepEveryWholeFrameIsHandedOnAtOnceAndItsPayloadNeverRead) {
    Reading reading;
    Frames const frames{KNOWN,
                        FarPeer::encode({9, 1, 2, 0, 0, 0, KNOWN + KNOWN}),   // an unknown topic
                        FarPeer::encode({2, 1, 4, 0, 0, 0, KNOWN}),           // an unknown type
                        FarPeer::encode({0xAA, 0xAA, 1, 7, 0, 0xAA, KNOWN}),  // a wrong count
                        FarPeer::encode({2, 1, 1, 0, 0, 0, KNOWN}),           // no acknowledgement
                        FarPeer::encode({2, 1, 3, 1, 2, 3, Bytes(65535, 'U')}),
                        KNOWN};
    for (size_t i = 0; i < frames.size(); ++i) {
        reading.feed(Bytes(frames[i].begin(), frames[i].end() - 1));
        EXPECT_TRUE(reading.reader.incomplete());
        reading.feed({frames[i].back()});
        ASSERT_EQ(reading.frames.size(), i + 1);
        EXPECT_EQ(reading.frames[i], frames[i]);
        EXPECT_FALSE(reading.reader.incomplete());
    }
    EXPECT_EQ(reading.reader.skippedBytes(), 0U);
}

TEST(FrameReaderTest, AfterGarbageWhatTheLibraryActsOnIsFoundAtOnce) {
    Bytes const ack{'U', 9, 0, 0xAA, 0xAA, 1, 2, 0, 0, 0, 0xAA, 0, 0, 0, 1, 0, 0, 0, 2, 0, 3};
    for (Bytes const& first : {KNOWN, FarPeer::encode({1, 13, 200, 0, 0, 0, {}}), ack}) {
        for (Bytes const& garbage : {Bytes{'x'}, Bytes{'x'} + repeated(size_t{1} << 22, {'U'}),
                                     Bytes{'x'} + FarPeer::encode({2, 1, 1, 0, 0, 0, {}}),
                                     Bytes{'x'} + FarPeer::encode({2, 2, 2, 0, 0, 0, {}}),
                                     Bytes{'x'} + FarPeer::encode({0xAA, 0xAA, 1, 1, 0, 0, {}}),
                                     Bytes{'x'} + FarPeer::encode({0xAA, 1, 1, 0, 0, 0, {}})}) {
            Reading reading;
            Bytes const unknown = FarPeer::encode({9, 9, 9, 0, 0, 0, {}});  // in step again
            reading.feed(garbage + first + unknown);
            EXPECT_EQ(reading.frames, (Frames{first, unknown}));
            EXPECT_EQ(reading.reader.skippedBytes(), garbage.size());
        }
    }
}

TEST(FrameReaderTest, AFrameThatWasCutHidesNothingBehindASilence) {
    Bytes cut = FarPeer::encode({2, 1, 2, 0, 0, 0, Bytes(60000)});
    cut.resize(100);
    Bytes const unknown = FarPeer::encode({9, 1, 4, 0, 0, 0, KNOWN});
    Reading silent, streaming;
    silent.feed(cut);
    silent.reader.abandon();
    silent.feed(repeated(40, unknown));
    EXPECT_EQ(silent.frames, Frames(40, unknown));
    EXPECT_EQ(silent.reader.skippedBytes(), cut.size());

    streaming.feed(cut + repeated(5000, KNOWN));
    size_t const swallowed = 1 + (60012 - 100 + KNOWN.size() - 1) / KNOWN.size();
    ASSERT_EQ(streaming.frames.size(), 1 + 5000 - swallowed + 1);
    EXPECT_EQ(streaming.frames.back(), KNOWN);

    streaming.feed({'U', 1});
    streaming.reader.reset();
    streaming.feed(unknown);
    EXPECT_EQ(streaming.frames.back(), unknown);
}

}  // namespace

}  // namespace vesk::hostkit
