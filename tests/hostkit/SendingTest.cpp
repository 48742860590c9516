#include <gtest/gtest.h>

#include <vesk/Vesk.h>
#include <vesk/hostkit/SendGate.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

using namespace vesk::hostkit;
using Bytes = Outbox::Bytes;

TEST(OutboxTest, GivesAllThatWaitsAtOnceAndKnowsWhatWasLost) {
    int wakes = 0;
    Outbox outbox([&] { wakes += outbox.backlog() > 0 ? 1 : 100; });  // no lock is held
    Outbox::Batch batch{};
    auto const expect = [&](Bytes const& taken, size_t backlog, uint64_t lost, int woken) {
        batch = outbox.take();
        EXPECT_EQ(Bytes(batch.data, batch.data + batch.size), taken);
        EXPECT_EQ(outbox.backlog(), backlog);
        EXPECT_EQ(outbox.lostBytes(), lost);
        EXPECT_EQ(wakes, woken);
    };
    outbox.put({});
    expect({}, 0, 0, 0);
    outbox.put({1, 2});
    outbox.put({3});
    expect({1, 2, 3}, 3, 0, 1);
    outbox.put({4});
    outbox.written(1);
    expect({2, 3}, 3, 0, 1);
    outbox.written(2);
    expect({4}, 1, 0, 1);
    outbox.written(1);
    outbox.put({5, 6, 7});  // its writer rests again
    expect({5, 6, 7}, 3, 0, 2);
    outbox.written(1);
    outbox.put({8});
    EXPECT_EQ(outbox.close(), 3U);
    EXPECT_EQ(outbox.close(), 0U);
    outbox.put({9, 9});
    outbox.open();
    outbox.put({10});
    EXPECT_EQ(batch.data[2], 7);  // until its writer has reported
    expect({}, 1, 5, 2);
    outbox.failed();
    expect({10}, 1, 5, 2);
    outbox.put({11});
    outbox.failed();
    expect({11}, 1, 6, 2);
    outbox.put({12, 13});
    outbox.written(1);
    expect({12, 13}, 2, 6, 2);
    outbox.close();
    outbox.written(1);  // late, and a part only
    outbox.open();
    outbox.put({14});
    expect({14}, 1, 8, 3);
}

TEST(SendGateTest, SaysHowManyFramesMayBeSentAndWhatStandsAgainstIt) {
    auto const queue = std::make_shared<vesk::VeskQueue>();
    vesk::testkit::ShiftedClock clock(queue);
    vesk::Vesk::getInstance()->init(new vesk::testkit::RecordingCallback);
    Outbox outbox(nullptr);
    SendGate const gate(*queue, outbox);
    auto const expect = [&](size_t room, std::string const& why) {
        std::string const text = SendGate::describe(gate.obstacle());
        EXPECT_TRUE(why.empty() ? text.empty() : text.find(why) < text.size()) << why << text;
        EXPECT_EQ(gate.room(), room) << why;
        EXPECT_EQ(gate.open(), room > 0) << why;
    };
    uint16_t id = 0;
    auto const send = [&](int priority, uint16_t upTo) {
        for (; id < upTo; ++id) {
            auto const frame = vesk::VeskFrame::obtainFrame(true);
            frame->msgId = id;
            queue->enqueue(priority, true, frame);
        }
        clock.settle();
    };
    send(2, 255);  // held back for 2000 ms
    expect(1, "");
    send(2, 256);
    expect(0, "pending");
    clock.advance(2000);
    send(1, 890);
    expect(10, "");
    send(2, 900);
    expect(0, "await the peer's acknowledgement");
    clock.advance(2000);  // it never acknowledges: room comes all the same
    size_t const mib = size_t{1024} * 1024;
    for (size_t const bytes : {mib - 1, size_t{1}, 3 * mib - 1, size_t{1}}) {
        EXPECT_TRUE(gate.mayRead());
        outbox.put(Bytes(bytes));
        bytes == mib - 1 ? expect(256, "") : expect(0, "high watermark");
    }
    EXPECT_FALSE(gate.mayRead());
    outbox.take();
    outbox.written(4 * mib - mib / 4 - 1);
    expect(0, "high watermark");
    outbox.written(1);
    expect(256, "");
    outbox.close();
    expect(0, "down");
}
