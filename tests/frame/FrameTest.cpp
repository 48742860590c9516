#include <vesk/VeskFrame.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace vesk {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(FrameTest, GoldenBytesAreWrittenAndRead) {
    // magic, length, topic, business, type, reply, serial, msgId, payload
    Bytes const golden{0x55, 0x03, 0x00, 0x0A, 0x0B, 0x03, 0x02, 0x01,
                       0x04, 0x83, 0x06, 0x85, 0xD1, 0xD2, 0xD3};
    VeskFrame read;
    ASSERT_TRUE(read.unSerialze(golden));
    EXPECT_EQ(read.reply, 0x0102);
    EXPECT_EQ(read.serialNumber, 0x8304);
    EXPECT_EQ(read.msgId, 0x8506);
    read.dataSize = 77;  // is not what travels
    Bytes written(40, 0xFF);
    read.serialze(written);
    EXPECT_EQ(written, golden);

    read.data.assign(65538, 0xEE);
    read.serialze(written);
    EXPECT_EQ(written.size(), 65550U);
    EXPECT_EQ(written[1] + written[2] * 256, 2);  // modulo 65536
}

TEST(FrameTest, OnlyAShortInputIsRefused) {
    Bytes input(11, 0x99);
    VeskFrame frame;
    frame.data = {1, 2};
    EXPECT_FALSE(frame.unSerialze(input));
    input.push_back(0x99);
    ASSERT_TRUE(frame.unSerialze(input));
    EXPECT_EQ(frame.magic, 0x99);
    EXPECT_EQ(frame.dataSize, 0x9999);
    EXPECT_EQ(frame.data, (Bytes{1, 2}));

    input.push_back(9);
    ASSERT_TRUE(frame.unSerialze(input));
    EXPECT_EQ(frame.dataSize, 2);  // of the data that was there before
    EXPECT_EQ(frame.data, Bytes{9});
}

TEST(FrameTest, SerialNumbersAreConsecutiveAndDistinctAcrossThreads) {
    uint16_t const first = VeskFrame::obtainFrame(true)->serialNumber;
    std::vector<std::atomic<int>> taken(65536);
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&taken] {
            for (size_t n = 0; n < 16 * taken.size(); ++n)
                ++taken[VeskFrame::obtainFrame(true)->serialNumber];
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (auto const& times : taken)
        ASSERT_EQ(times, 64) << &times - taken.data();
    EXPECT_EQ(VeskFrame::obtainFrame(true)->serialNumber, static_cast<uint16_t>(first + 1));
    EXPECT_EQ(VeskFrame::obtainFrame(false)->serialNumber, 0);
}

}  // namespace
}  // namespace vesk
