#include "StreamReader.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <vesk/VeskFrame.h>

namespace vesk::e2e {

namespace {

using Bytes = std::vector<uint8_t>;

class StreamReaderTest : public ::testing::Test {
protected:
    static Bytes frame(uint8_t topic, uint8_t business, uint8_t type, Bytes data,
                       uint16_t reply = 0) {
        auto const made = VeskFrame::obtainFrame(false);
        made->topicId = topic;
        made->businessId = business;
        made->msgType = type;
        made->reply = reply;
        made->data = std::move(data);
        Bytes bytes;
        made->serialze(bytes);
        return bytes;
    }

    void feed(Bytes const& bytes) { mReader.feed(bytes.data(), bytes.size()); }

    VeskConfig const mCatalogue;
    std::vector<Bytes> mFrames;
    tool::StreamReader mReader{mCatalogue, [this](Bytes const& one) { mFrames.push_back(one); }};
};

void append(Bytes& stream, Bytes const& bytes) {
    stream.insert(stream.end(), bytes.begin(), bytes.end());
}

TEST_F(StreamReaderTest, TheChunkingMakesNoDifference) {
    std::mt19937 random(7);
    Bytes stream;
    std::vector<Bytes> sent;
    size_t garbageSize = 0;
    for (size_t i = 0; i < 60; ++i) {
        // Every byte of it may be a magic byte, but no header comes of it: types go to 3.
        Bytes garbage(random() % 40);
        for (uint8_t& byte : garbage)
            byte = random() % 2 ? 0x55 : static_cast<uint8_t>(4 + random() % 81);
        garbageSize += garbage.size();
        append(stream, garbage);
        size_t const sizes[] = {0, 1, 11, 12, 13, 300, 65535};
        Bytes payload(sizes[random() % 7], 0x55);
        sent.push_back(i % 5 == 0 ? frame(0xAA, 0xAA, 1, Bytes(8, 0x55), 2)
                                  : frame(1, static_cast<uint8_t>(1 + i % 13), 2, payload));
        append(stream, sent.back());
    }
    feed(stream);
    EXPECT_EQ(mFrames, sent);
    EXPECT_EQ(mReader.skippedBytes(), garbageSize);

    for (size_t chunk : {size_t{1}, size_t{5}, size_t{12}, size_t{4093}}) {
        std::vector<Bytes> found;
        tool::StreamReader reader(mCatalogue, [&](Bytes const& one) { found.push_back(one); });
        for (size_t at = 0; at < stream.size(); at += chunk) {
            reader.feed(stream.data() + at, std::min(chunk, stream.size() - at));
        }
        EXPECT_EQ(found, sent) << "in chunks of " << chunk;
        EXPECT_EQ(reader.skippedBytes(), garbageSize) << "in chunks of " << chunk;
    }
}

TEST_F(StreamReaderTest, AHeaderThatCannotBeIsSkipped) {
    Bytes const good = frame(2, 1, 3, {9});
    for (Bytes const& bad : {frame(3, 1, 2, {}), frame(2, 2, 2, {}), frame(2, 1, 1, {}),
                             frame(2, 1, 4, {}), frame(2, 1, 0, {}), frame(0xAA, 0xAA, 2, {}),
                             frame(0xAA, 0xAA, 1, Bytes(8), 3), frame(0xAA, 1, 1, Bytes(4), 1)}) {
        uint64_t const skipped = mReader.skippedBytes();
        mFrames.clear();
        feed(bad);
        feed(good);
        EXPECT_EQ(mFrames, std::vector<Bytes>{good});
        EXPECT_EQ(mReader.skippedBytes() - skipped, bad.size());
    }
}

TEST_F(StreamReaderTest, OnlyAHeaderBehindGarbageIsGivenUp) {
    Bytes const inner = frame(2, 1, 2, {1, 2});
    Bytes outer = frame(2, 1, 2, Bytes(40));
    std::copy(inner.begin(), inner.end(), outer.begin() + 20);
    outer.pop_back();

    feed(outer);
    EXPECT_FALSE(mReader.doubtful()) << "nothing foreign came before it";
    mReader.reset();
    EXPECT_EQ(mReader.skippedBytes(), outer.size());

    feed({0});
    feed(outer);
    EXPECT_TRUE(mReader.doubtful());
    EXPECT_TRUE(mFrames.empty());
    mReader.abandon();
    EXPECT_EQ(mFrames, std::vector<Bytes>{inner});
    EXPECT_EQ(mReader.skippedBytes(), outer.size() + 1 + outer.size() - inner.size());
    feed(inner);
    EXPECT_EQ(mFrames.size(), 2U);
}

}  // namespace

}  // namespace vesk::e2e
