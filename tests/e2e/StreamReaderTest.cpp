#include "StreamReader.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>
#include <vesk/testkit/FarPeer.h>

namespace vesk::e2e {

namespace {

using Bytes = std::vector<uint8_t>;

class StreamReaderTest : public ::testing::Test {
protected:
    static Bytes frame(uint8_t topic, uint8_t business, uint8_t type, Bytes const& payload,
                       uint16_t reply = 0) {
        return testkit::FarPeer::encode({topic, business, type, reply, 0, 0, payload});
    }

    void feed(Bytes const& bytes) { mReader.feed(bytes.data(), bytes.size()); }

    VeskConfig const mCatalogue;
    std::vector<Bytes> mFrames;
    tool::StreamReader mReader{mCatalogue, [this](Bytes const& one) { mFrames.push_back(one); }};
};

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
