#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include <quillex/Log.h>
#include <vesk/testkit/FaultyLink.h>
#include <vesk/testkit/StreamPeer.h>

#include "support/VeskTest.h"

namespace vesk::testkit {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using TestkitTest = VeskTest;

// What arrives of 1000 writes, one each ms: how many, how many before earlier ones, the latest in
// ms.
using Arrived = std::array<size_t, 3>;
Arrived through(FaultyLink::Faults faults, bool mended = false) {
    Random random(1);
    FaultyLink link(random, faults);
    if (mended) link.mend();
    link.write(0, {'x'}), link.cut();
    size_t arrived = 0, early = 0, last = 0, latest = 0;
    for (size_t now = 0; now < 1100; ++now) {
        if (now < 1000) link.write(now, {uint8_t(now)});
        for (Bytes const& chunk : link.read(now)) {
            for (uint8_t const byte : chunk) {
                size_t const delay = uint8_t(now - byte);
                arrived += 1, early += now - delay < last;
                last = now - delay, latest = std::max(latest, delay);
            }
        }
    }
    return {arrived, early, latest};
}

TEST(LinkTest, EveryFaultComesAsOftenAsAskedAndAlone) {
    EXPECT_EQ(through({}), (Arrived{1000, 0, 20}));
    EXPECT_EQ(through({300, 0, 0, 0, 5}), (Arrived{671, 0, 5}));
    EXPECT_EQ(through({0, 1000, 0, 0, 3}), (Arrived{2000, 551, 52}));
    EXPECT_EQ(through({0, 0, 0, 1000}), (Arrived{1000, 386, 20}));
    EXPECT_EQ(through({1000, 1000, 1000, 1000, 7}, true), (Arrived{1000, 0, 7}));

    Random random(1);
    FaultyLink link(random, {0, 0, 1000, 0, 0});
    for (int n = 0; n < 5000; ++n)
        link.write(0, {'x'});  // so short that one change may undo another
    std::set<size_t> sizes;
    for (Bytes const& chunk : link.read(0)) {
        EXPECT_EQ(std::count(chunk.begin(), chunk.end(), 'x'), 0);
        sizes.insert(chunk.size());
    }
    EXPECT_TRUE(*sizes.begin() < 10 && *sizes.rbegin() > 190 && *sizes.rbegin() <= 200);

    Random script({0, 0, 3, 231, 1, 2});
    EXPECT_TRUE(script.chance(1) && !script.chance(999) && script.between(5, 260) == 6);
    EXPECT_TRUE(script.below(257) == 512U % 257 && script.exhausted());  // a missing byte is 0
}

TEST(LinkTest, StreamPeerFindsFramesAndAcknowledgesThemWithinTheirTime) {
    Random random(1);
    StreamPeer peer(random, 0), forgetful(random, 1000);
    // Topic, business and type of eleven that are none, then of five frames.
    Bytes const ids{0, 1, 2, 3, 1, 2,  1, 0, 2,   1, 14, 2, 2,   0,   2,   2,
                    2, 2, 1, 1, 1, 1,  1, 4, 170, 1, 1,  1, 170, 1,   170, 170,
                    2, 1, 1, 2, 1, 13, 3, 2, 1,   2, 2,  1, 3,   170, 170, 1};
    auto const frame = [&](size_t at, uint16_t serial) {
        return FarPeer::encode({ids[at], ids[at + 1], ids[at + 2], 0, serial, 0, Bytes(300)});
    };
    Bytes found;
    for (size_t at = 0; at < ids.size(); at += 3) {
        for (uint8_t const byte : frame(at, 0)) {
            for (auto const& f : peer.read(0, {byte}))
                found.insert(found.end(), {f.topicId, f.businessId, f.msgType});
        }
    }
    EXPECT_EQ(found, Bytes(ids.begin() + 33, ids.end()));
    peer.read(0, Bytes{'U', 0, 0, 1, 1, 2});
    peer.reset();

    for (uint16_t serial = 0; serial < 500; ++serial)
        peer.read(9, frame(33, serial));
    peer.read(9, Bytes{'U', 0, 0, 1, 1, 2});  // the stream goes on arriving
    std::set<size_t> serials, sizes;
    for (uint64_t now = 9; now < 9 + 707; now += 7) {
        for (Bytes const& bytes : peer.dueAcks(now)) {
            auto const entries = FarPeer::ackEntries(FarPeer::decode(bytes));
            sizes.insert(entries.size());
            for (auto const& [hold, serial] : entries)
                serials.insert(hold == now - 9 ? serial : 999);
        }
    }
    EXPECT_TRUE(serials.size() == 500 && *serials.rbegin() == 499 && *sizes.rbegin() == 5);
    EXPECT_TRUE(forgetful.read(0, frame(33, 0)).size() == 1 && forgetful.dueAcks(700).empty());
    forgetful.forgetNothing();
    EXPECT_TRUE(forgetful.read(0, frame(33, 0)).size() == 1 && forgetful.dueAcks(700).size() == 1);
}

TEST_F(TestkitTest, FarPeerReadsAndWritesTheWiresBytesAndNoOthers) {
    Bytes const golden{'U', 1, 0, 1, 2, 3, 5, 4, 7, 0x86, 0x89, 8, 0xEE};
    EXPECT_EQ(FarPeer::encode(FarPeer::decode(golden)), golden);
    Bytes const ack = FarPeer::encode(FarPeer::ackFrame({{0x0102, 0x8304}, {5, 6}}));
    EXPECT_EQ(ack, (Bytes{'U', 8, 0, 170, 170, 1, 2, 0, 0, 0, 170, 0, 2, 1, 4, 0x83, 5, 0, 6, 0}));
    for (size_t const at : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 12U}) {
        Bytes wrong(ack.begin(), at < 12 ? ack.end() : ack.begin() + 11);
        ++wrong[at % 12];
        EXPECT_THROW(FarPeer::ackEntries(FarPeer::decode(wrong)), std::invalid_argument) << at;
    }
    EXPECT_EQ(FarPeer::encode({0, 0, 0, 0, 0, 0, Bytes(65535)})[2], 0xFF);
    EXPECT_THROW(FarPeer::encode({0, 0, 0, 0, 0, 0, Bytes(65536)}), std::invalid_argument);
    EXPECT_THROW(peer.send(Bytes(11)), std::invalid_argument);
    peer.acknowledgeAll(callback, 7);
    auto const sent = frame(1);
    sent->serialNumber = 8;
    queue->enqueue(1, true, sent);
    clock.settle();  // it is acknowledged at the moment at which it is sent
    peer.send(request(3));
    clock.advance(500);  // its acknowledgement leaves, and is not acknowledged
    EXPECT_EQ(log.count("VeskQueue", "receiveFromChannel:0,msgType:1,msg:170"), 1U);
    EXPECT_TRUE(queue->awaitingAck() == 0 && queue->feedback().delay() == uint32_t(-7));
    auto const own = std::make_shared<VeskQueue>();
    FarPeer(own).send(request(1));
    EXPECT_EQ(own->feedback().receivedPackets() + queue->feedback().receivedPackets(), 2U);
}

TEST(ClockTest, ALooperThatDoesNotRestIsSaid) {
    auto const ended = std::make_shared<VeskQueue>();
    ended->stop();
    ShiftedClock clock(ended, 5, 1ms);
    EXPECT_THROW(clock.settle(), std::runtime_error);
    EXPECT_THROW(clock.advance(2), std::runtime_error);
    EXPECT_EQ(clock.now(), 7U);
}

TEST_F(TestkitTest, WaitsEndInTimeAndWhatIsRecordedIsKeptApart) {
    EXPECT_FALSE(callback->waitForSent(1, 1ms) || eventually([] { return false; }, 0ms));
    callback->onReceive([&](auto const&) { EXPECT_TRUE(callback->waitForDeliveries(1, 0ms)); });
    callback->receive(3, 4, true, nullptr);
    EXPECT_FALSE(callback->waitForDeliveries(2, 1ms));
    EXPECT_TRUE(callback->waitUntil(
            [&] { return callback->sendToChannel({}), callback->sentCount() > 1; }));
    EXPECT_THROW(CapturedLog(), std::logic_error);
    EXPECT_THROW(ShiftedClock(), std::logic_error);
    auto const gone = [&](VeskFrame* old) { callback->sentCount(), delete old; };
    callback->receive(1, 2, false, {new VeskFrame, gone});
    callback->notifyTopicChanged(true, "t");
    callback->notifyBusinessChanged(false, "t", "b");
    EXPECT_TRUE(callback->waitForSent(1, 0ms) && callback->topicChanges().at(0).topicName == "t");
    EXPECT_EQ(callback->businessChanges().at(0).businessName, "b");
    callback->clear();  // who destroys the frame under its lock never returns
    EXPECT_EQ(callback->sentCount() + callback->deliveries().size() +
                      callback->topicChanges().size() + callback->businessChanges().size(),
              0U);
    quillex::Log::d("a", "x");
    EXPECT_TRUE(log.count("a", "x") == 1 && !log.contains("a", "y") && !log.contains("b", "x"));
}

}  // namespace
}  // namespace vesk::testkit
