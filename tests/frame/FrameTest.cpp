#include <vesk/VeskFrame.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

namespace vesk {
namespace {

using Bytes = std::vector<uint8_t>;

// Taken before main(), and so the first of the process.
std::array<int, 3> const FIRST{VeskFrame::obtainFrame(true)->serialNumber,
                               VeskFrame::obtainFrame(false)->serialNumber,
                               VeskFrame::obtainFrame(true)->serialNumber};

TEST(FrameTest, SerialNumbersBeginAtZeroAndAreUsedOnceInACycle) {
    EXPECT_EQ(FIRST, (std::array<int, 3>{0, 0, 1}));
    uint16_t const first = VeskFrame::obtainFrame(true)->serialNumber;
    std::vector<std::atomic<int>> taken(65536);
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&taken] {
            for (size_t n = 0; n < 4 * taken.size(); ++n)
                ++taken[VeskFrame::obtainFrame(true)->serialNumber];
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (auto const& times : taken)
        ASSERT_EQ(times, 16) << &times - taken.data();
    EXPECT_EQ(VeskFrame::obtainFrame(true)->serialNumber, static_cast<uint16_t>(first + 1));
}

TEST(FrameTest, GoldenBytesAreWrittenAndRead) {
    // magic, length, topic, business, type, reply, serial, msgId, payload
    Bytes const golden{0x55, 0x03, 0x00, 0x0A, 0x0B, 0x03, 0x02, 0x01,
                       0x04, 0x83, 0x06, 0x85, 0xD1, 0xD2, 0xD3};
    auto const frame = VeskFrame::obtainFrame(false);
    Bytes written(40, 0xFF);
    frame->serialze(written);
    EXPECT_EQ(written, (Bytes{0x55, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    ASSERT_TRUE(frame->unSerialze(golden));
    EXPECT_EQ(frame->dataSize, 0);  // the size of the data before
    EXPECT_EQ(frame->businessId, 0x0B);
    EXPECT_EQ(frame->reply, 0x0102);
    EXPECT_EQ(frame->msgId, 0x8506);
    frame->dataSize = 77;  // is not what travels
    frame->serialze(written);
    EXPECT_EQ(written, golden);

    // A header alone leaves the data; nothing but its size is checked.
    ASSERT_TRUE(frame->unSerialze(Bytes(12, 0x99)));
    EXPECT_EQ(frame->magic, 0x99);
    EXPECT_EQ(frame->dataSize, 0x9999);
    EXPECT_FALSE(frame->unSerialze(Bytes(11, 0x11)));
    EXPECT_EQ(frame->magic, 0x99);
    EXPECT_EQ(frame->data, (Bytes{0xD1, 0xD2, 0xD3}));
    ASSERT_TRUE(frame->unSerialze(Bytes(13)));
    EXPECT_EQ(frame->dataSize, 3);

    frame->data.resize(65538);
    frame->serialze(written);
    EXPECT_EQ(written.size(), 65550U);
    EXPECT_EQ(written[1] + written[2] * 256, 2);  // modulo 65536
}

}  // namespace
}  // namespace vesk
