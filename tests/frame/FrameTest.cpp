#include <vesk/VeskFrame.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace vesk {
namespace {

using Bytes = std::vector<uint8_t>;

uint16_t serial(bool withSerial) {
    return VeskFrame::obtainFrame(withSerial)->serialNumber;
}
// Before main(), and so the first of the process.
std::vector<uint16_t> const FIRST{serial(true), serial(false), serial(true)};

TEST(FrameTest, SerialNumbersBeginAtZeroAndAreUsedOnceInACycle) {
    EXPECT_EQ(FIRST, (std::vector<uint16_t>{0, 0, 1}));
    auto const next = static_cast<uint16_t>(serial(true) + 1);
    std::vector<std::atomic<int>> taken(65536);
    std::vector<std::thread> threads(4);
    for (auto& thread : threads) {
        thread = std::thread([&taken] {
            for (size_t n = 0; n < 4 * taken.size(); ++n)
                ++taken[serial(true)];
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (auto const& times : taken)
        ASSERT_EQ(times, 16) << &times - taken.data();
    EXPECT_EQ(serial(true), next);
}

TEST(FrameTest, GoldenBytesAreWrittenAndRead) {
    // magic, length, topic, business, type, reply, serial, msgId, payload
    Bytes const golden{85, 3, 0, 10, 11, 3, 2, 1, 4, 0x83, 6, 0x85, 0xD1, 0xD2, 0xD3};
    auto const frame = VeskFrame::obtainFrame(false);
    Bytes written(40, 0xFF);
    frame->serialze(written);
    EXPECT_EQ(written, (Bytes{85, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(frame->unSerialze(golden));
    EXPECT_EQ(frame->dataSize, 0);  // the size of the data before
    EXPECT_TRUE(frame->topicId == 10 && frame->reply == 0x0102 && frame->msgId == 0x8506);
    frame->serialze(written);
    EXPECT_EQ(written, golden);
    // A header alone leaves the data. Nothing but the size is checked.
    EXPECT_TRUE(frame->unSerialze(Bytes(12, 0x99)) && !frame->unSerialze(Bytes(11)));
    EXPECT_TRUE(frame->magic == 0x99 && frame->dataSize == 0x9999 && frame->data[2] == 0xD3);
    EXPECT_TRUE(frame->unSerialze(Bytes(13)) && frame->dataSize == 3 && frame->data.size() == 1);
    frame->data.resize(65538);
    frame->serialze(written);
    EXPECT_TRUE(written.size() == 65550 && written[1] == 2 && written[2] == 0);  // modulo 65536
}

}  // namespace
}  // namespace vesk
