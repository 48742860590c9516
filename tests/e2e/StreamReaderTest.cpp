#include "StreamReader.h"

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

TEST_F(StreamReaderTest, OnlyAHeaderBehindGarbageIsDoubtful) {
    Bytes const begun{0x55, 100, 0, 2, 1, 2, 0, 0, 0, 0, 0, 0, 1, 2, 3};
    feed(begun);
    EXPECT_FALSE(mReader.doubtful());
    mReader.reset();
    feed({0});
    feed(begun);
    EXPECT_TRUE(mReader.doubtful());
    mReader.abandon();
    EXPECT_EQ(mReader.skippedBytes(), 2 * begun.size() + 1);
}

}  // namespace

}  // namespace vesk::e2e
