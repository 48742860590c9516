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
using TestkitTest = VeskTest;

// What arrives of 1000 writes, one each ms: how many, how many changed and before earlier ones, the
// latest in ms, and the smallest and the largest chunk.
using Arrived = std::array<size_t, 6>;
Arrived through(FaultyLink::Faults faults, bool mended = false) {
    Random random(1);
    FaultyLink link(random, faults);
    if (mended) link.mend();
    link.write(0, {'x'});
    link.cut();
    Bytes stream;
    std::set<size_t> numbers, delays{0}, sizes;
    size_t arrived = 0, changed = 0, early = 0;
    for (size_t now = 0; now < 1100; ++now) {
        if (now < 1000) link.write(now, Bytes(300, uint8_t(now)));
        for (Bytes const& chunk : link.read(now)) {
            stream.insert(stream.end(), chunk.begin(), chunk.end());
            sizes.insert(chunk.size());
        }
        for (; stream.size() >= 300; stream.erase(stream.begin(), stream.begin() + 300)) {
            size_t const number = now - uint8_t(now - stream[0]);
            bool const same = std::count(stream.begin(), stream.begin() + 300, stream[0]) == 300;
            arrived += 1, changed += !same, delays.insert(same ? now - number : 0);
            early += numbers.insert(number).second && number != *numbers.rbegin();
        }
    }
    return {arrived, changed, early, *delays.rbegin(), *sizes.begin(), *sizes.rbegin()};
}

TEST(LinkTest, EveryFaultComesAsOftenAsAskedAndAlone) {
    EXPECT_EQ(through({}), (Arrived{1000, 0, 0, 20, 1, 200}));
    EXPECT_EQ(through({300, 0, 0, 0, 5}), (Arrived{696, 0, 0, 5, 1, 200}));
    EXPECT_EQ(through({0, 1000, 0, 0, 3}), (Arrived{2000, 0, 0, 52, 1, 200}));
    EXPECT_EQ(through({0, 0, 1000, 0, 0}), (Arrived{1000, 1000, 0, 0, 1, 200}));
    EXPECT_EQ(through({0, 0, 0, 1000}), (Arrived{1000, 0, 674, 20, 1, 200}));
    EXPECT_EQ(through({1000, 1000, 1000, 1000, 7}, true), (Arrived{1000, 0, 0, 7, 1, 200}));

    Random random(1);
    FaultyLink link(random, {0, 0, 1000, 0, 0});
    for (int n = 0; n < 5000; ++n)
        link.write(0, {'x'});  // so short that one change may undo another
    for (Bytes const& chunk : link.read(0))
        EXPECT_EQ(std::count(chunk.begin(), chunk.end(), 'x'), 0);

    Random script({0, 0, 0, 1, 3, 231, 1, 2}), seed(7);
    EXPECT_TRUE(script.chance(1) && !script.chance(1) && !script.chance(999));
    EXPECT_EQ(script.below(1) + script.between(5, 260), 6U);  // no byte and one
    EXPECT_FALSE(script.exhausted() || seed.exhausted());
    EXPECT_EQ(script.below(257), 512U % 257);  // one that is not there counts as 0
    EXPECT_TRUE(script.exhausted() && script.below(SIZE_MAX) == 0 && seed.below(1000) == 15);
}

TEST(LinkTest, StreamPeerFindsFramesAndAcknowledgesThemWithinTheirTime) {
    Random random(1);
    StreamPeer peer(random, 0), forgetful(random, 1000);
    // Topic, business and type of eleven that are none, then of five frames.
    Bytes const ids{0, 1, 2, 3, 1, 2,  1, 0, 2,   1, 14, 2, 2,   0,   2,   2,
                    2, 2, 1, 1, 1, 1,  1, 4, 170, 1, 1,  1, 170, 1,   170, 170,
                    2, 1, 1, 2, 1, 13, 3, 2, 1,   2, 2,  1, 3,   170, 170, 1};
    auto const frame = [&](size_t at, size_t serial) {
        return FarPeer::encode(
                {ids[at], ids[at + 1], ids[at + 2], 0, uint16_t(serial), 0, Bytes(300)});
    };
    Bytes found;
    peer.read(0, {'V', 0, 0, 1, 1, 2});
    for (size_t at = 0; at < ids.size(); at += 3) {
        for (uint8_t const byte : frame(at, 0)) {
            for (auto const& f : peer.read(0, {byte}))
                found.insert(found.end(), {f.topicId, f.businessId, f.msgType});
        }
    }
    EXPECT_EQ(found, Bytes(ids.begin() + 33, ids.end()));
    Bytes const cut = frame(33, 999);
    peer.read(0, {cut.begin(), cut.end() - 1});
    peer.reset();

    std::set<size_t> serials, holds, batches;
    for (size_t now = 0; now < 1300; ++now) {
        if (now < 500) peer.read(now, frame(33, now)), forgetful.read(now, frame(33, now));
        for (Bytes const& bytes : now % 7 ? std::vector<Bytes>{} : peer.dueAcks(now)) {
            auto const entries = FarPeer::ackEntries(FarPeer::decode(bytes));
            batches.insert(entries.size());
            for (auto const& [hold, serial] : entries) {
                EXPECT_TRUE(serials.insert(serial).second && serial + hold == now);
                holds.insert(hold);
            }
            peer.read(now, bytes);  // is not acknowledged
        }
    }
    EXPECT_TRUE(serials.size() == 500 && batches == (std::set<size_t>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(*holds.begin() < 9 && *holds.rbegin() > 690 && *holds.rbegin() < 706);
    EXPECT_TRUE(forgetful.dueAcks(2000).empty());
    forgetful.forgetNothing();
    forgetful.read(2000, frame(33, 0));
    EXPECT_FALSE(forgetful.dueAcks(2699).empty());
}

TEST_F(TestkitTest, FarPeerReadsAndWritesTheWiresBytesAndNoOthers) {
    Bytes const golden{'U', 1, 0, 1, 2, 3, 5, 4, 7, 0x86, 0x89, 8, 0xEE};
    EXPECT_EQ(FarPeer::encode(FarPeer::decode(golden)), golden);
    Bytes const ack = FarPeer::encode(FarPeer::ackFrame({{0x0102, 0x8304}, {5, 6}}));
    EXPECT_EQ(ack, (Bytes{'U', 8, 0, 170, 170, 1, 2, 0, 0, 0, 170, 0, 2, 1, 4, 0x83, 5, 0, 6, 0}));
    EXPECT_EQ(FarPeer::ackEntries(FarPeer::decode(ack))[1].serialNumber, 6);
    for (size_t const at : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 12U}) {
        Bytes wrong(ack.begin(), at < 12 ? ack.end() : ack.begin() + 11);
        ++wrong[at % 12];
        EXPECT_THROW(FarPeer::ackEntries(FarPeer::decode(wrong)), std::invalid_argument) << at;
    }
    EXPECT_EQ(FarPeer::encode({0, 0, 0, 0, 0, 0, Bytes(65535)})[2], 0xFF);
    EXPECT_THROW(FarPeer::encode({0, 0, 0, 0, 0, 0, Bytes(65536)}), std::invalid_argument);
    EXPECT_THROW(peer.send(Bytes(11)), std::invalid_argument);

    peer.acknowledgeAll(callback, 7);
    send(1);
    EXPECT_TRUE(queue->awaitingAck() == 0 && queue->feedback().delay() == uint32_t(-7));
    callback->onSend({});
    send(0);
    peer.acknowledgeAll(callback);
    peer.send(request(9));
    clock.advance(500);
    EXPECT_TRUE(callback->sentCount() == 3 && queue->awaitingAck() == 1);  // its own is not meant
}

TEST(ClockTest, MovesTheQueueThatItIsGiven) {
    auto const queue = std::make_shared<VeskQueue>();
    queue->stop();  // its looper never comes to rest
    uint64_t const start = uint64_t{1} << 40;
    {
        ShiftedClock clock(queue, start, 1ms);
        EXPECT_THROW(ShiftedClock(), std::logic_error);
        clock.jump(-5);
        EXPECT_EQ(quillex::SystemClock::uptimeMillis(), start - 5);
        EXPECT_THROW(clock.advance(9), std::runtime_error);
        EXPECT_EQ(clock.now(), start + 4);
        FarPeer(queue).send(FarPeer::Frame{2, 1, 2, 0, 0, 0, {}});
        EXPECT_EQ(queue->feedback().receivedPackets(), 1U);
    }
    EXPECT_LT(quillex::SystemClock::uptimeMillis(), start);
}

TEST_F(TestkitTest, WhatIsRecordedIsCountedWaitedForAndLetGo) {
    auto const& host = callback;
    EXPECT_FALSE(host->waitForSent(1, 1ms) || host->waitForDeliveries(1, 1ms));
    std::string seen;
    host->onTopicChange([&](auto const& t) { seen += t.topicName + char('0' + t.added); });
    host->onReceive([&](auto const&) { seen += host->waitForDeliveries(1, 0ms) ? "hook" : "?"; });
    host->receive(3, 4, true, {new VeskFrame, [&](VeskFrame* frame) {
                                   seen += host->deliveries().empty() ? " gone" : "?";
                                   delete frame;
                               }});
    host->notifyTopicChanged(false, " topic");
    host->notifyBusinessChanged(true, "", "");
    EXPECT_FALSE(host->waitForDeliveries(2, 1ms) || host->businessChanges().size() != 1);
    host->clear();
    EXPECT_TRUE(host->topicChanges().empty() && host->businessChanges().empty());
    EXPECT_EQ(seen, "hook topic0 gone");
    std::atomic<size_t> asked{0};
    std::thread sender([&] {
        for (size_t n = 0; n < 1000; ++n) {
            EXPECT_TRUE(eventually([&] { return asked > n; }));
            host->sendToChannel({});
        }
    });
    EXPECT_TRUE(host->waitUntil([&] { return ++asked, host->sentCount() == 1000; }, 24h));
    sender.join();

    EXPECT_THROW(CapturedLog(), std::logic_error);
    for (auto const& [tag, text] : {std::pair{"a", "x"}, {"a", "y"}, {"b", "x"}, {"a", "x"}})
        quillex::Log::d(tag, text);
    EXPECT_EQ(log.messages("a"), (Strings{"x", "y", "x"}));
    EXPECT_TRUE(log.count("a", "x") == 2 && log.contains("a", "y") && !log.contains("b", "y"));
    asked = 0;
    EXPECT_FALSE(eventually([&] { return ++asked, false; }, 0ms));
    EXPECT_TRUE(asked == 1 && eventually([&] { return ++asked == 1100; }));
}

}  // namespace
}  // namespace vesk::testkit
