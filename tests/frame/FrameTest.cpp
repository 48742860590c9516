#include <vesk/VeskFrame.h>

#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace vesk {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(FrameTest, GoldenBytesAreWrittenAndRead) {
    // magic, length, topic, business, type, reply, serial, msgId, payload
    Bytes const golden{0x55, 0x03, 0x00, 0x0A, 0x0B, 0x03, 0x02, 0x01,
                       0x04, 0x83, 0x06, 0x85, 0xD1, 0xD2, 0xD3};
    VeskFrame written;
    written.dataSize = 77;  // is not what travels
    written.topicId = 0x0A;
    written.businessId = 0x0B;
    written.msgType = 3;
    written.reply = 0x0102;
    written.serialNumber = 0x8304;
    written.msgId = 0x8506;
    written.data = {0xD1, 0xD2, 0xD3};
    Bytes bytes(40, 0xFF);
    written.serialze(bytes);
    EXPECT_EQ(bytes, golden);

    VeskFrame read;
    ASSERT_TRUE(read.unSerialze(golden));
    EXPECT_EQ(read.dataSize, 0);
    read.serialze(bytes);
    EXPECT_EQ(bytes, golden);
}

TEST(FrameTest, LengthOnTheWireIsThePayloadsModulo65536) {
    for (size_t const size : {0U, 1U, 255U, 256U, 65535U, 65538U}) {
        VeskFrame frame;
        frame.data.assign(size, 0xEE);
        Bytes bytes;
        frame.serialze(bytes);
        EXPECT_EQ(bytes.size(), size + 12);
        EXPECT_EQ(bytes[1] + bytes[2] * 256U, size % 65536);
    }
}

TEST(FrameTest, OnlyAShortInputIsRefused) {
    Bytes input(11, 0x99);
    VeskFrame frame;
    frame.data = {1, 2};
    EXPECT_FALSE(frame.unSerialze(input));
    EXPECT_EQ(frame.magic, 0x55);

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

TEST(FrameTest, SerialNumbersAreConsecutiveAndWrapAfter65536) {
    uint16_t const first = VeskFrame::obtainFrame(true)->serialNumber;
    EXPECT_EQ(VeskFrame::obtainFrame(false)->serialNumber, 0);
    for (unsigned i = 1; i <= 65536; ++i) {
        ASSERT_EQ(VeskFrame::obtainFrame(true)->serialNumber, static_cast<uint16_t>(first + i));
    }
}

TEST(FrameTest, SerialNumbersAreDistinctAcrossThreads) {
    std::vector<uint16_t> taken(20000);
    std::vector<std::thread> threads;
    for (size_t first = 0; first < 4; ++first) {
        threads.emplace_back([&taken, first] {
            for (size_t i = first; i < taken.size(); i += 4) {
                taken[i] = VeskFrame::obtainFrame(true)->serialNumber;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(std::set<uint16_t>(taken.begin(), taken.end()).size(), taken.size());
}

}  // namespace
}  // namespace vesk
