#include <vesk/VeskFrame.h>

#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace vesk {
namespace {

using Bytes = std::vector<uint8_t>;

// magic, length, topic, business, type, reply, serial, msgId, payload
Bytes const GOLDEN{0x55, 0x03, 0x00, 0x0A, 0x0B, 0x03, 0x02, 0x01,
                   0x04, 0x83, 0x06, 0x85, 0xD1, 0xD2, 0xD3};

TEST(FrameTest, GoldenBytesAreWrittenAndRead) {
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
    EXPECT_EQ(bytes, GOLDEN);

    auto const read = VeskFrame::obtainFrame(false);
    ASSERT_TRUE(read->unSerialze(GOLDEN));
    EXPECT_EQ(read->magic, 0x55);
    EXPECT_EQ(read->dataSize, 0);
    EXPECT_EQ(read->topicId, 0x0A);
    EXPECT_EQ(read->businessId, 0x0B);
    EXPECT_EQ(read->msgType, 3);
    EXPECT_EQ(read->reply, 0x0102);
    EXPECT_EQ(read->serialNumber, 0x8304);
    EXPECT_EQ(read->msgId, 0x8506);
    EXPECT_EQ(read->data, written.data);
}

TEST(FrameTest, LengthOnTheWireIsThePayloadsModulo65536) {
    for (size_t const size : {0U, 1U, 255U, 256U, 65535U, 65536U, 65538U}) {
        VeskFrame frame;
        frame.data.assign(size, 0xEE);
        Bytes bytes;
        frame.serialze(bytes);
        EXPECT_EQ(bytes.size(), size + 12);
        EXPECT_EQ(bytes[1], size % 256) << size;
        EXPECT_EQ(bytes[2], size / 256 % 256) << size;
        EXPECT_EQ(bytes.back(), size == 0 ? 0 : 0xEE);
    }
}

TEST(FrameTest, ShortInputIsRefusedAndLeavesTheFrame) {
    VeskFrame frame;
    frame.msgId = 5;
    frame.data = {1};
    for (size_t size = 0; size < 12; ++size) {
        EXPECT_FALSE(frame.unSerialze(Bytes(size, 0xFF))) << size;
    }
    EXPECT_EQ(frame.msgId, 5);
    EXPECT_EQ(frame.magic, 0x55);
    EXPECT_EQ(frame.data, Bytes{1});
}

TEST(FrameTest, NothingInTheHeaderIsValidated) {
    Bytes header(12, 0);
    header[0] = 0x99;
    header[1] = 0x34;
    header[2] = 0x12;
    VeskFrame frame;
    frame.data = {1, 2};
    ASSERT_TRUE(frame.unSerialze(header));
    EXPECT_EQ(frame.magic, 0x99);
    EXPECT_EQ(frame.dataSize, 0x1234);
    EXPECT_EQ(frame.data, (Bytes{1, 2}));

    header.push_back(9);
    ASSERT_TRUE(frame.unSerialze(header));
    EXPECT_EQ(frame.dataSize, 2);  // of the data that was there before
    EXPECT_EQ(frame.data, Bytes{9});
}

TEST(FrameTest, SerialNumbersAreConsecutiveAndWrapAfter65536) {
    auto const next = [](bool withSerial) {
        return VeskFrame::obtainFrame(withSerial)->serialNumber;
    };
    uint16_t const first = next(true);
    EXPECT_EQ(next(false), 0);
    for (unsigned i = 1; i < 65536; ++i) {
        ASSERT_EQ(next(true), static_cast<uint16_t>(first + i));
    }
    EXPECT_EQ(next(true), first);
}

TEST(FrameTest, SerialNumbersAreDistinctAcrossThreads) {
    std::vector<std::vector<uint16_t>> taken(4);
    std::vector<std::thread> threads;
    for (auto& numbers : taken) {
        threads.emplace_back([&numbers] {
            for (int i = 0; i < 5000; ++i) {
                numbers.push_back(VeskFrame::obtainFrame(true)->serialNumber);
            }
        });
    }
    std::set<uint16_t> distinct;
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        distinct.insert(taken[i].begin(), taken[i].end());
    }
    EXPECT_EQ(distinct.size(), 20000U);
}

}  // namespace
}  // namespace vesk
