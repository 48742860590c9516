#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <vesk/Vesk.h>
#include <vesk/hostkit/Outbox.h>
#include <vesk/hostkit/SendGate.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

namespace vesk::hostkit {

namespace {

using testkit::RecordingCallback;
using testkit::ShiftedClock;
using Bytes = Outbox::Bytes;

/** What take() gives, as bytes. */
Bytes taken(Outbox& outbox) {
    Outbox::Batch const batch = outbox.take();
    return {batch.data, batch.data + batch.size};
}

TEST(OutboxTest, GivesAllThatWaitsAsOneWriteAndWakesOnlyAWriterThatRests) {
    int wakes = 0;
    Outbox* inside = nullptr;
    Outbox outbox([&] { wakes += inside->backlog() > 0 ? 1 : 100; });  // no lock is held
    inside = &outbox;
    outbox.put({});
    EXPECT_EQ(wakes, 0);
    outbox.put({1, 2});
    outbox.put({3});
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(taken(outbox), (Bytes{1, 2, 3}));
    outbox.put({4});
    outbox.put({5});
    EXPECT_EQ(outbox.backlog(), 5U);
    outbox.written(1);
    EXPECT_EQ(taken(outbox), (Bytes{2, 3}));
    EXPECT_EQ(outbox.backlog(), 4U);
    outbox.written(2);
    EXPECT_EQ(taken(outbox), (Bytes{4, 5}));
    outbox.written(2);
    EXPECT_EQ(taken(outbox), Bytes{});
    EXPECT_EQ(wakes, 1);
    outbox.put({6});
    EXPECT_EQ(wakes, 2);
    EXPECT_EQ(taken(outbox), Bytes{6});
    EXPECT_EQ(outbox.lostBytes(), 0U);
}

TEST(OutboxTest, KnowsWhatWasLostAndKeepsABatchForItsWriter) {
    Outbox outbox(nullptr);
    outbox.put({1, 2, 3});
    Outbox::Batch const batch = outbox.take();
    outbox.written(1);
    outbox.put({4});
    EXPECT_EQ(outbox.close(), 3U);
    EXPECT_EQ(outbox.close(), 0U);
    EXPECT_EQ(outbox.backlog(), 0U);
    outbox.put({5, 5});
    EXPECT_EQ(outbox.lostBytes(), 5U);
    EXPECT_FALSE(outbox.isOpen());

    outbox.open();
    EXPECT_TRUE(outbox.isOpen());
    outbox.put({6, 7});
    EXPECT_EQ(taken(outbox), Bytes{});
    EXPECT_EQ(Bytes(batch.data, batch.data + 3), (Bytes{1, 2, 3}));
    outbox.failed();  // the write of before; its bytes are counted already
    EXPECT_EQ(taken(outbox), (Bytes{6, 7}));
    outbox.written(1);
    outbox.put({8});
    outbox.failed();
    EXPECT_EQ(outbox.lostBytes(), 6U);
    EXPECT_EQ(taken(outbox), Bytes{8});
    outbox.close();
    outbox.written(1);  // too late as well, and not only a part of it
    outbox.open();
    outbox.put({9});
    EXPECT_EQ(taken(outbox), Bytes{9});
    EXPECT_EQ(outbox.lostBytes(), 7U);
}

TEST(OutboxTest, ManyThreadsPutWhileOneWrites) {
    std::atomic<int> wakes{0};
    Outbox outbox([&] { ++wakes; });
    std::vector<std::thread> threads;
    for (uint8_t id = 0; id < 2; ++id) {
        threads.emplace_back([&outbox, id] {
            for (uint8_t n = 0; n < 200; ++n)
                outbox.put({id, n});
        });
    }
    std::vector<int> next(2);
    for (int seen = 0, left = 400; left > 0; ++seen) {  // rests until it is woken, like a writer
        while (wakes == seen)
            std::this_thread::yield();
        for (Bytes bytes; !(bytes = taken(outbox)).empty(); outbox.written(bytes.size())) {
            for (size_t i = 0; i < bytes.size(); i += 2, --left)
                ASSERT_EQ(bytes[i + 1], next[bytes[i]]++);
        }
    }
    for (std::thread& thread : threads)
        thread.join();
}

std::shared_ptr<VeskFrame> frame(uint16_t msgId) {
    auto const frame = VeskFrame::obtainFrame(true);
    frame->msgId = msgId;
    return frame;
}

TEST(SendGateTest, SaysHowManyFramesMayBeSentAndWhatStandsAgainstIt) {
    using Obstacle = SendGate::Obstacle;
    auto const queue = std::make_shared<VeskQueue>();
    ShiftedClock clock(queue);
    Vesk::getInstance()->init(new RecordingCallback);
    Outbox outbox(nullptr);
    SendGate const gate(*queue, outbox);
    auto const expect = [&](Obstacle obstacle, size_t room, char const* text) {
        EXPECT_EQ(gate.obstacle(), obstacle) << text;
        EXPECT_EQ(gate.room(), room) << text;
        EXPECT_EQ(gate.open(), room > 0) << text;
        EXPECT_NE(std::string(SendGate::describe(gate.obstacle())).find(text), std::string::npos);
    };
    expect(Obstacle::NONE, 256, "");
    EXPECT_STREQ(SendGate::describe(Obstacle::NONE), "");
    for (uint16_t id = 0; id < 256; ++id) {
        EXPECT_EQ(gate.room(), size_t{256} - id);
        queue->enqueue(2, true, frame(id));  // held back for 2000 ms
    }
    expect(Obstacle::PENDING, 0, "pending");
    clock.advance(2000);
    expect(Obstacle::NONE, 256, "");
    for (uint16_t id = 256; id < 890; ++id)
        queue->enqueue(1, true, frame(id));
    clock.settle();
    expect(Obstacle::NONE, 10, "");
    for (uint16_t id = 890; id < 900; ++id)
        queue->enqueue(2, true, frame(id));
    expect(Obstacle::IN_FLIGHT, 0, "acknowledgement");
    clock.advance(2000);  // the peer never acknowledges: room comes all the same
    expect(Obstacle::NONE, 256, "");

    size_t const mib = size_t{1024} * 1024;
    outbox.put(Bytes(mib - 1));
    expect(Obstacle::NONE, 256, "");
    outbox.put(Bytes(1));
    expect(Obstacle::HIGH_WATERMARK, 0, "high watermark");
    outbox.take();
    outbox.written(mib - mib / 4 - 1);
    expect(Obstacle::HIGH_WATERMARK, 0, "high watermark");
    outbox.written(1);
    expect(Obstacle::NONE, 256, "");
    outbox.put(Bytes(mib / 2));
    expect(Obstacle::NONE, 256, "");

    outbox.put(Bytes(4 * mib - mib * 3 / 4 - 1));
    EXPECT_TRUE(gate.mayRead());
    outbox.put(Bytes(1));
    EXPECT_FALSE(gate.mayRead());
    outbox.close();
    expect(Obstacle::CHANNEL_DOWN, 0, "down");
    outbox.open();
    expect(Obstacle::NONE, 256, "");
}

}  // namespace

}  // namespace vesk::hostkit
