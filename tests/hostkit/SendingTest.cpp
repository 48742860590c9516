#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <sstream>
#include <utility>

#include <vesk/hostkit/FrameTally.h>
#include <vesk/hostkit/HostStatus.h>
#include <vesk/hostkit/SendGate.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

using namespace vesk;
using namespace vesk::hostkit;
using testkit::FarPeer;
using Bytes = Outbox::Bytes;

TEST(OutboxTest, GivesAllThatWaitsAtOnceAndKnowsWhatWasLost) {
    int wakes = 0;
    Outbox outbox([&] { wakes += outbox.backlog() > 0 ? 1 : 100; });  // no lock is held
    Outbox::Batch batch{};
    uint8_t puts = 0;
    size_t closed = 0;
    // A digit: so many bytes are put, each the number of the put; w: one is written; f: they fail;
    // c: it closes; o: it opens; r: the writer reads. Then: what it gets, backlog, lost, wakes.
    std::tuple<std::string, Bytes, size_t, uint64_t, int> const cases[] = {
            {"0", {}, 0, 0, 0},         {"21", {2, 2, 3}, 3, 0, 1},
            {"1w", {2, 3}, 3, 0, 1},    {"ww", {4}, 1, 0, 1},
            {"w3", {5, 5, 5}, 3, 0, 2},  // its writer rested
            {"w1cc2o1r", {}, 1, 5, 2},   // its writer has not reported yet
            {"f", {8}, 1, 5, 2},         // what was lost already
            {"1f", {9}, 1, 6, 2},       {"2w", {10, 10}, 2, 6, 2},
            {"cwo1", {11}, 1, 8, 3},  // reported late, and a part only
    };
    for (auto const& [steps, taken, backlog, lost, woken] : cases) {
        for (char const step : steps) {
            if (step <= '9') outbox.put(Bytes(size_t(step - '0'), ++puts));
            if (step == 'w') outbox.written(1);
            if (step == 'f') outbox.failed();
            if (step == 'c') closed += outbox.close();
            if (step == 'o') outbox.open();
            if (step == 'r') closed += batch.data[2];
        }
        batch = outbox.take();
        EXPECT_EQ(Bytes(batch.data, batch.data + batch.size), taken) << steps;
        EXPECT_EQ(std::tuple(outbox.backlog(), outbox.lostBytes(), wakes),
                  std::tuple(backlog, lost, woken))
                << steps;
    }
    EXPECT_EQ(closed, 3 + 5 + 2);  // 5 is what was read
}

TEST(OutboxTest, GivesBackWhatABurstHasTaken) {
    constexpr size_t KEPT = size_t{512} * 1024, BURST = size_t{8} * 1024 * 1024;
    Outbox outbox(nullptr);
    auto const send = [&] { outbox.written(outbox.take().size); };
    outbox.put(Bytes(1));
    EXPECT_GT(outbox.take().size, 0U);
    outbox.put(Bytes(BURST));
    send();
    send();
    EXPECT_LE(outbox.memory(), KEPT) << "nothing waits";
    outbox.put(Bytes(KEPT / 2));
    send();
    EXPECT_EQ(outbox.memory(), KEPT / 2) << "for the next ones";
    outbox.put(Bytes(BURST));
    EXPECT_EQ(outbox.take().size, BURST);
    outbox.put(Bytes(1));
    send();
    EXPECT_LE(outbox.memory(), KEPT) << "little waits";
    send();
    for (int i = 0; i < 3; ++i) {
        outbox.put(Bytes(BURST));
        outbox.take();
    }
    for (int i = 0; i < 2; ++i)
        send();
    EXPECT_LE(outbox.memory(), KEPT) << "nothing waits, and both were large";
    outbox.put(Bytes(BURST));
    outbox.close();
    EXPECT_LE(outbox.memory(), KEPT) << "it has closed";
}

TEST(FrameTallyTest, AFrameCountsUntilItsLastCopyIsGone) {
    std::shared_ptr<VeskFrame> first, second;
    {
        FrameTally tally;
        auto const frame = VeskFrame::obtainFrame(false);
        frame->data.resize(100);
        first = tally.count(frame);
        std::weak_ptr<VeskFrame> const watcher = first;
        second = first;
        auto const other = tally.count(VeskFrame::obtainFrame(false));
        EXPECT_EQ(first, frame);
        EXPECT_EQ(tally.bytes(), 112U + 12U);
        first->data.clear();  // as when it was sent
        first.reset();
        EXPECT_EQ(tally.bytes(), 112U + 12U);
        second.reset();
        EXPECT_EQ(tally.bytes(), 12U);
        EXPECT_EQ(frame.use_count(), 1) << "it goes when its last copy does";
        first = other;
    }
    first.reset();  // the tally is gone
}

/** Sends frames with these ids, of which the type and the size are the last byte. */
void send(VeskQueue& queue, int priority, uint16_t first, uint16_t last) {
    for (uint16_t id = first; id <= last; ++id) {
        auto const frame = VeskFrame::obtainFrame(false);
        frame->msgId = frame->serialNumber = id;
        frame->msgType = uint8_t(id);
        frame->data.resize(frame->msgType);
        queue.enqueue(priority, true, frame);
    }
}

TEST(OutboxTest, LeavesFramesWaitingOnlyWhileMoreCome) {
    auto const queue = std::make_shared<VeskQueue>();
    testkit::ShiftedClock clock(queue);
    Outbox outbox(nullptr);
    size_t frames = 0;
    std::vector<size_t> writes;  // of so many frames
    android::sp<testkit::RecordingCallback> const host = new testkit::RecordingCallback;
    host->onSend([&](Bytes const& bytes) {
        if (++frames == 1 && writes.empty()) send(*queue, 1, 257, 385);
        outbox.put(bytes);
        if (outbox.moreComes(*queue)) return;
        outbox.written(outbox.take().size);
        writes.push_back(std::exchange(frames, 0));
    });
    Vesk::getInstance()->init(host);
    for (uint16_t alone = 1; alone <= 2; ++alone) {
        send(*queue, 1, alone, alone);
        clock.settle();
    }
    Vesk::getInstance()->init(new testkit::RecordingCallback);
    EXPECT_EQ(writes, std::vector<size_t>({64, 64, 2, 1}));
}

TEST(OutboxTest, LeavesNoMoreThan64FramesOr64KiBWaiting) {
    auto const queue = std::make_shared<VeskQueue>();
    testkit::ShiftedClock clock(queue);
    Outbox outbox(nullptr);
    // So many frames of so many bytes more, and whether one more may be left for the next call.
    for (auto const& [frames, size, more] : {std::tuple{1, 65535U, true},
                                             {1, 1U, false},
                                             {0, 0U, true},  // taken, which 0 stands for
                                             {63, 1U, true},
                                             {1, 1U, false},
                                             {-1, 0U, true},  // closed
                                             {63, 1U, true},
                                             {-1, 0U, true},
                                             {1, 65536U, false}}) {
        if (frames == 0) outbox.written(outbox.take().size);
        if (frames < 0) outbox.close(), outbox.open();
        for (int i = 0; i < frames; ++i)
            outbox.put(Bytes(size));
        for (uint16_t pending = 1; pending <= 2; ++pending) {
            send(*queue, 2, pending, pending);  // held back
            EXPECT_EQ(outbox.moreComes(*queue), more && queue->size() > 1);
        }
    }
}

TEST(SendGateTest, TheChannelIsNotReadWhileTooManyAcknowledgementsAreOwed) {
    auto const queue = std::make_shared<VeskQueue>();
    testkit::ShiftedClock clock(queue);
    Outbox outbox(nullptr);
    SendGate const gate(*queue, outbox);
    std::promise<void> go;
    android::sp<testkit::RecordingCallback> const host = new testkit::RecordingCallback;
    host->onSend([&](auto const&) { go.get_future().wait(); });
    Vesk::getInstance()->init(host);
    send(*queue, 1, 1, 1);
    EXPECT_TRUE(host->waitForSent(1));  // and now the looper is stuck
    host->onSend(nullptr);
    for (uint16_t serial = 1; serial <= 500; ++serial) {
        EXPECT_TRUE(gate.mayRead());
        auto const frame = VeskFrame::obtainFrame(false);
        frame->unSerialze(FarPeer::encode({2, 1, 2, 9, serial, serial, {}}));
        queue->receiveFromChannel(frame);
    }
    EXPECT_FALSE(gate.mayRead());
    go.set_value();
    clock.settle();
    EXPECT_TRUE(gate.mayRead());
    Vesk::getInstance()->init(new testkit::RecordingCallback);
}

TEST(SendGateTest, SaysHowManyFramesMayBeSentAndWhatStandsAgainstIt) {
    auto const queue = std::make_shared<VeskQueue>();
    testkit::ShiftedClock clock(queue);
    Vesk::getInstance()->init(new testkit::RecordingCallback);
    Outbox outbox(nullptr);
    SendGate const gate(*queue, outbox);
    auto const expect = [&](size_t room, std::string const& why) {
        std::string const text = SendGate::describe(gate.obstacle());
        EXPECT_TRUE(why.empty() ? text.empty() : text.find(why) < text.size()) << why << text;
        EXPECT_EQ(std::pair(gate.room(), gate.open()), std::pair(room, room > 0)) << why;
    };
    // Deferred frames leave after 2000 ms; nobody acknowledges, which is over 2000 ms later.
    std::tuple<int, uint16_t, uint16_t, size_t, std::string> const cases[] = {
            {2, 1, 255, 1, ""},
            {2, 256, 256, 0, "pending"},
            {1, 257, 890, 10, ""},
            {2, 891, 900, 0, "await the peer's acknowledgement"},
            {2, 1, 0, 256, ""}};
    for (auto const& [priority, first, last, room, why] : cases) {
        send(*queue, priority, first, last);
        clock.settle();
        expect(room, why);
        if (room == 0) clock.advance(2000);
    }
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
    outbox.put(Bytes(mib));
    send(*queue, 2, 1, 256);
    expect(0, "pending");
    outbox.take();
    outbox.written(mib / 4);
    outbox.take();
    outbox.written(mib / 2);
    clock.advance(2000);
    expect(0, "high watermark");  // which was met behind the other obstacle
    using Obstacle = SendGate::Obstacle;
    std::pair<SendGate::Limits, Obstacle> const first[] = {
            {{0, 0, 0, 0, 0}, Obstacle::PENDING},
            {{999, 0, 0, 0, 0}, Obstacle::IN_FLIGHT},
            {{999, 999, 0, 0, 0}, Obstacle::HIGH_WATERMARK}};
    for (auto const& [limits, obstacle] : first)
        EXPECT_EQ(SendGate(*queue, outbox, limits).obstacle(), obstacle);
    outbox.close();
    EXPECT_EQ(SendGate(*queue, outbox, {0, 0, 0, 0, 0}).obstacle(), Obstacle::CHANNEL_DOWN);
    expect(0, "down");
}

// status.txt, beside this file: the JSON object and the text, before and after the channel closes.
TEST(HostStatusTest, CountsWhatIsThereAndWhatHasBecomeOfIt) {
    Vesk& vesk = *Vesk::getInstance();
    VeskSessionManager& sessions = *vesk.getSessionManager();
    testkit::ShiftedClock clock;
    TrafficCounters traffic;
    Outbox outbox(nullptr);
    FrameReader reader(*vesk.getConfig(), [&](auto const& frame) {
        traffic.in(*frame), vesk.getQueue()->receiveFromChannel(frame);
    });
    android::sp<testkit::RecordingCallback> const callback = new testkit::RecordingCallback;
    callback->onReceive(
            [&](auto const& delivery) { traffic.delivered(*delivery.frame, delivery.local); });
    callback->onSend([&](auto const& bytes) { traffic.out(bytes), outbox.put(bytes); });
    vesk.init(callback);
    vesk.createTopic("test", false);
    vesk.createTopic("virtualcomm", false);
    uint16_t consumers[3];  // one of them leaves a gap in the ids
    for (uint16_t& id : consumers)
        id = uint16_t(sessions.createSession(1, 1, "test", "test", false));
    sessions.createSession(1, 2, "virtualcomm", "vm", false);
    sessions.removeSession(consumers[0]);
    auto const feed = [&](FarPeer::Frame const& frame) {
        Bytes const bytes = FarPeer::encode(frame);
        reader.feed(bytes.data(), bytes.size());
    };
    auto const delay = [&] {
        clock.settle();
        return HostStatus::of(vesk, traffic).delayMillis;
    };
    send(*vesk.getQueue(), 1, 2, 2);  // is superseded
    send(*vesk.getQueue(), 1, 2, 5);
    EXPECT_EQ(delay(), std::nullopt);
    feed(FarPeer::ackFrame({{0, 3}}));
    EXPECT_EQ(delay(), 0U);
    clock.advance(2000);
    send(*vesk.getQueue(), 1, 6, 11);
    EXPECT_EQ(delay(), std::nullopt);
    clock.jump(1600);
    feed(FarPeer::ackFrame({{0, 6}}));
    feed({2, 1, 3, consumers[1], 1, 1, {1, 2}});
    for (uint16_t serial = 1; serial <= 3; ++serial)
        feed({2, 1, 2, 0, serial, 1, {}});
    for (FarPeer::Frame const& other : {FarPeer::Frame{9, 1, 4, 0, 1, 1, {}},
                                        {0xAA, 1, 1, 0, 1, 1, {}},  // no acknowledgements
                                        {1, 0xAA, 1, 0, 1, 1, {}}})
        feed(other);
    reader.feed(Bytes{'x'}.data(), 1);
    send(*vesk.getQueue(), 2, 1001, 2006);
    traffic.delivered(*VeskFrame::obtainFrame(false), true);
    TrafficCounters unfed;  // by a host that does not call in()
    auto const request = VeskFrame::obtainFrame(false);
    request->topicId = request->businessId = 1;
    request->msgType = REQUEST;
    unfed.delivered(*request, false);
    EXPECT_EQ(unfed.undelivered(), 0U);
    EXPECT_EQ(unfed.unprovided(1, 1), 0U);
    std::stringstream found, expected;
    found << HostStatus().json() << "\n" << HostStatus::of(vesk, traffic).text();
    for (int closing = 0; closing < 2; ++closing, outbox.close()) {
        HostStatus const status = HostStatus::of(vesk, traffic, &outbox, &reader);
        found << status.json() << "\n" << status.text();
    }
    HostStatus full;
    full.channelMillis = 5000012999;
    full.reconnects = 3;
    full.lostBytes = 4;
    full.superseded = 5;
    full.acknowledged = 99;
    full.localTopics = {"a", "b\n"};
    full.slowClients = {{6, 7, 8999}, {9, 10, 11}};
    found << full.json() << "\n" << full.text();
    expected << std::ifstream(VESK_HOSTKIT_TESTS "/status.txt").rdbuf();
    EXPECT_EQ(found.str(), expected.str());
    vesk.init(new testkit::RecordingCallback);
    clock.settle();
}
