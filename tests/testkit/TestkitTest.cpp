#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>
#include <thread>

#include <quillex/Log.h>
#include <quillex/SystemClock.h>
#include <vesk/testkit/FaultyLink.h>
#include <vesk/testkit/StreamPeer.h>

#include "support/VeskTest.h"

namespace vesk::testkit {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

TEST(TestkitTest, RandomFollowsItsScriptOrItsSeed) {
    Random script({0, 0, 0, 1, 3, 231, 1, 2}), seed(7);
    EXPECT_TRUE(script.chance(1) && !script.chance(1) && !script.chance(999));
    EXPECT_EQ(script.below(1) + script.between(5, 260), 6U);  // no byte and one
    EXPECT_FALSE(script.exhausted() || seed.exhausted());
    EXPECT_EQ(script.below(257), 512U % 257);  // one that is not there counts as 0
    EXPECT_TRUE(script.exhausted() && script.below(SIZE_MAX) == 0 && seed.below(1000) == 15);
}

// What arrives of 1000 writes, one each ms: how many, how many changed or before earlier ones, the
// latest in ms, and the smallest and the largest chunk.
std::array<size_t, 6> through(FaultyLink::Faults faults, bool mended = false) {
    Random random(1);
    FaultyLink link(random, faults);
    if (mended) link.mend();
    link.write(0, {'x'});
    link.cut();
    Bytes stream;
    std::set<size_t> numbers, delays{0}, sizes{0};
    size_t arrived = 0, changed = 0, early = 0;
    for (size_t now = 0; now < 1100; ++now) {
        if (now < 1000) link.write(now, Bytes(300, uint8_t(now)));
        for (Bytes const& chunk : link.read(now)) {
            stream.insert(stream.end(), chunk.begin(), chunk.end());
            sizes.insert(chunk.size());
        }
        for (; stream.size() >= 300;
             stream.erase(stream.begin(), stream.begin() + 300), ++arrived) {
            size_t const delay = uint8_t(now - stream[0]);
            bool const same = std::count(stream.begin(), stream.begin() + 300, stream[0]) == 300;
            same ? void(delays.insert(delay)) : void(++changed);
            early += numbers.insert(now - delay).second && now - delay != *numbers.rbegin();
        }
    }
    return {arrived, changed, early, *delays.rbegin(), *std::next(sizes.begin()), *sizes.rbegin()};
}

TEST(TestkitTest, LinkDoesToEachWriteWhatIsAskedAndNothingElse) {
    using Arrived = std::array<size_t, 6>;
    EXPECT_EQ(through({}), (Arrived{1000, 0, 0, 20, 1, 200}));
    EXPECT_EQ(through({300, 0, 0, 0, 5}), (Arrived{696, 0, 0, 5, 1, 200}));
    EXPECT_EQ(through({0, 1000, 0, 0, 3}), (Arrived{2000, 0, 0, 52, 1, 200}));
    EXPECT_EQ(through({0, 0, 1000, 0, 0}), (Arrived{1000, 1000, 0, 0, 1, 200}));
    EXPECT_EQ(through({0, 0, 0, 1000}), (Arrived{1000, 0, 674, 20, 1, 200}));
    EXPECT_EQ(through({1000, 1000, 1000, 1000, 7}, true), (Arrived{1000, 0, 0, 7, 1, 200}));
}

TEST(TestkitTest, StreamPeerFindsItsFramesAndAcknowledgesThemInTime) {
    Random random(1);
    StreamPeer peer(random, 0);
    for (int key = 0; key < 2 * 5 * 6 * 5; ++key) {
        Bytes stream = FarPeer::encode({Bytes{0, 1, 2, 3, 0xAA}[key / 10 % 5],
                                        Bytes{0, 1, 2, 13, 14, 0xAA}[key / 50],
                                        uint8_t(key / 2 % 5),
                                        0,
                                        0,
                                        0,
                                        {}});
        bool const ack = stream[3] == 0xAA && stream[4] == 0xAA && stream[5] == 1;
        bool const data = VeskConfig().isBussinessSupport(stream[3], stream[4]) &&
                          (stream[5] == 2 || stream[5] == 3);
        bool const found = key % 2 == 0 && (ack || data);
        if (key % 2) stream[0] = 'V';
        Bytes const whole = FarPeer::encode({2, 1, 3, 0, 77, 0, Bytes(300)});
        stream.insert(stream.end(), whole.begin(), whole.end());
        std::vector<size_t> sizes;
        for (uint8_t const byte : stream)
            for (auto const& frame : peer.read(0, {byte}))
                sizes.push_back(frame.payload.size());
        EXPECT_EQ(sizes, found ? (std::vector<size_t>{0, 300}) : std::vector<size_t>{300}) << key;
    }
    peer.read(0, {'U'});
    peer.reset();
    std::set<size_t> serials, holds, batches;
    StreamPeer forgetful(random, 1000);
    for (size_t now = 0; now < 1300; ++now) {
        Bytes const frame = FarPeer::encode({2, 1, 2, 0, uint16_t(now), 0, {}});
        if (now < 500) peer.read(now, frame), forgetful.read(now, frame);
        for (Bytes const& bytes : now % 7 ? std::vector<Bytes>{} : peer.dueAcks(now)) {
            auto const entries = FarPeer::ackEntries(FarPeer::decode(bytes));
            batches.insert(entries.size());
            for (auto const& [hold, serial] : entries) {
                EXPECT_TRUE(serials.insert(serial).second && serial + hold == now);
                holds.insert(hold);
            }
            peer.read(now, bytes);  // an acknowledgement is not acknowledged
        }
    }
    EXPECT_EQ(serials.size(), 500U);
    EXPECT_EQ(batches, (std::set<size_t>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(*holds.begin() < 9 && *holds.rbegin() > 690 && *holds.rbegin() < 706);
    EXPECT_TRUE(forgetful.dueAcks(2000).empty());
    forgetful.forgetNothing();
    forgetful.read(2000, FarPeer::encode({2, 1, 2, 0, 0, 0, {}}));
    EXPECT_EQ(forgetful.dueAcks(2699).size(), 1U);
}

TEST(TestkitTest, FarPeerReadsAndWritesTheWiresBytesAndNoOthers) {
    FarPeer::Frame const frame{1, 2, 3, 0x0405, 0x8607, 0x0889, {0xEE}};
    Bytes const golden{'U', 1, 0, 1, 2, 3, 5, 4, 7, 0x86, 0x89, 8, 0xEE};
    EXPECT_EQ(FarPeer::encode(frame), golden);
    EXPECT_EQ(FarPeer::encode(FarPeer::decode(golden)), golden);
    for (size_t const at : {0U, 1U, 2U, 12U}) {
        Bytes wrong = golden;
        at < 12 ? void(++wrong[at]) : wrong.resize(11);
        EXPECT_THROW(FarPeer::decode(wrong), std::invalid_argument) << at;
    }
    FarPeer::Frame large{};
    large.payload.resize(65535);
    EXPECT_EQ(FarPeer::decode(FarPeer::encode(large)).payload.size(), 65535U);
    large.payload.resize(65536);
    EXPECT_THROW(FarPeer::encode(large), std::invalid_argument);

    auto const ack = FarPeer::ackFrame({{0x0102, 0x8304}, {5, 6}});
    EXPECT_EQ(FarPeer::encode(ack),
              (Bytes{'U', 8, 0, 0xAA, 0xAA, 1, 2, 0, 0, 0, 0xAA, 0, 2, 1, 4, 0x83, 5, 0, 6, 0}));
    EXPECT_EQ(FarPeer::ackEntries(ack)[1].serialNumber, 6);
    for (auto const change : std::initializer_list<void (*)(FarPeer::Frame&)>{
                 [](auto& f) { f.topicId = 2; }, [](auto& f) { f.businessId = 2; },
                 [](auto& f) { f.msgType = 2; }, [](auto& f) { f.reply = 1; },
                 [](auto& f) { f.payload.push_back(1); }}) {
        auto wrong = ack;
        change(wrong);
        EXPECT_THROW(FarPeer::ackEntries(wrong), std::invalid_argument);
    }
}

TEST(TestkitTest, ClockAndFarPeerServeTheQueueTheyAreGiven) {
    auto const queue = std::make_shared<VeskQueue>();
    android::sp<RecordingCallback> const host = new RecordingCallback;
    Vesk::getInstance()->init(host);
    FarPeer peer(queue);
    auto const send = [&](uint16_t serial) {
        auto const frame = VeskFrame::obtainFrame(false);
        frame->msgId = frame->serialNumber = serial;
        queue->enqueue(1, true, frame);
    };
    {
        ShiftedClock clock(queue, 0, 1ms);
        std::atomic<bool> stuck{true};
        host->onSend([&](auto const&) { EXPECT_TRUE(eventually([&] { return !stuck; })); });
        send(1);
        EXPECT_THROW(clock.settle(), std::runtime_error);
        stuck = false;
        EXPECT_TRUE(eventually([&] { return queue->idle(); }));
    }
    uint64_t const start = uint64_t{1} << 40;
    {
        ShiftedClock clock(queue, start);
        EXPECT_THROW(ShiftedClock(), std::logic_error);
        clock.jump(-5);
        EXPECT_EQ(quillex::SystemClock::uptimeMillis(), start - 5);
        peer.acknowledgeAll(host, 7);
        send(1);
        clock.settle();
        EXPECT_TRUE(queue->awaitingAck() == 0 && queue->feedback().delay() == 0xFFFFFFF9);
        host->onSend({});
        send(0);
        clock.advance(30);
        peer.acknowledgeAll(host);
        peer.send(FarPeer::Frame{2, 1, 2, 0, 9, 0, {}});
        EXPECT_EQ(queue->owedAcks(), 1U);
        clock.advance(500);
        EXPECT_EQ(FarPeer::ackEntries(FarPeer::decode(host->sent().back())).at(0).hold, 500);
        EXPECT_TRUE(clock.now() == start + 525 &&
                    queue->awaitingAck() == 1);  // not by an acknowledgement
        peer.acknowledge(0, 3);
        EXPECT_EQ(queue->awaitingAck(), 0U);
        EXPECT_THROW(peer.send(Bytes(11)), std::invalid_argument);
    }
    EXPECT_LT(quillex::SystemClock::uptimeMillis(), start);
}

TEST(TestkitTest, RecordingCallbackRecordsRunsItsHookAndWakesWhoWaits) {
    android::sp<RecordingCallback> const host = new RecordingCallback;
    std::string log;
    auto const frame = [&] {
        return std::shared_ptr<VeskFrame>(new VeskFrame, [&](VeskFrame* released) {
            log += host->deliveries().empty() ? " cleared" : " released";
            delete released;
        });
    };
    host->onSend([&](auto const& b) { log += std::to_string(b.size() * 10 + host->sentCount()); });
    host->onReceive([&](auto const& d) {
        EXPECT_TRUE(d.clientId == 3 && d.sessionId == 4 && d.local && d.frame->magic == 'U');
        log += " delivery" + std::to_string(host->deliveries().size());
    });
    host->onTopicChange([&](auto const& t) { log += (t.added ? " +" : " -") + t.topicName; });
    host->onBusinessChange([&](auto const& b) {
        log += (b.added ? " +" : " -") + b.topicName + '/' + b.businessName;
    });
    EXPECT_FALSE(host->waitForSent(1, 1ms) || host->waitForDeliveries(1, 1ms));
    host->sendToChannel({1, 2});
    host->receive(3, 4, true, frame());
    EXPECT_TRUE(host->waitForSent(1, 0ms) && host->waitForDeliveries(1, 0ms));
    EXPECT_FALSE(host->waitForSent(2, 1ms) || host->waitForDeliveries(2, 1ms));
    host->notifyTopicChanged(true, "t");
    host->notifyBusinessChanged(false, "t", "b");
    EXPECT_TRUE(host->topicChanges()[0].added && host->businessChanges()[0].businessName == "b");
    host->clear();
    EXPECT_EQ(host->sent().size() + host->topicChanges().size() + host->businessChanges().size(),
              0U);
    EXPECT_EQ(log, "21 delivery1 +t -t/b cleared");
    host->onSend({});
    std::atomic<size_t> asked{0};
    std::thread sender([&] {
        for (size_t n = 0; n < 1000; ++n) {
            while (asked <= n)
                std::this_thread::yield();
            host->sendToChannel({});
        }
    });
    EXPECT_TRUE(host->waitUntil([&] { return ++asked, host->sentCount() == 1000; }, 24h));
    sender.join();
}

TEST(TestkitTest, CapturedLogCountsLinesAndEventuallyAsksUntilItsDeadline) {
    CapturedLog log;
    EXPECT_THROW(CapturedLog(), std::logic_error);
    for (auto const& [tag, text] : {std::pair{"a", "x"}, {"a", "y"}, {"b", "x"}, {"a", "x"}})
        quillex::Log::d(tag, text);
    EXPECT_EQ(log.messages("a"), (Strings{"x", "y", "x"}));
    EXPECT_TRUE(log.count("a", "x") == 2 && log.count("b", "x") == 1 && log.contains("a", "y"));
    EXPECT_TRUE(!log.contains("b", "y") && log.lines().size() == 4);
    log.clear();
    EXPECT_TRUE(log.lines().empty());
    int asked = 0;
    EXPECT_FALSE(eventually([&] { return ++asked, false; }, 0ms));
    EXPECT_TRUE(asked == 1 && eventually([&] { return ++asked == 2; }, 0ms));
    EXPECT_TRUE(eventually([&] { return ++asked == 1100; }));
}

}  // namespace
}  // namespace vesk::testkit
