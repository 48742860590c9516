#include "queue/QueueTest.h"

#include <climits>
#include <set>
#include <thread>

namespace vesk {
namespace {

TEST_F(QueueTest, PriorityThenAcknowledgementThenAgeDecideUrgencyOfCopiesToo) {
    std::tuple<int, bool, uint64_t> const falling[] = {
            {INT_MIN, false, 9}, {-5, false, 9},        {1, true, 1},
            {1, true, 2},        {1, true, 1ULL << 32}, {1, false, 1},
            {2, true, 1},        {2, false, 0},         {2, false, UINT64_MAX}};
    std::vector<Packet> packets(1);
    for (auto const& [priority, needAck, enqueued] : falling) {
        Packet const original = packet(priority, 7, needAck);
        EXPECT_EQ(original->enqueueTime(), clock.now());
        original->updateEnqueueTime(enqueued);
        original->updateSendTime(UINT64_MAX);
        Packet const copy = new VeskQueue::QueuedPacket(*original);
        EXPECT_EQ(std::tuple(copy->priority(), copy->needRetransmission(), copy->getFrame(),
                             copy->enqueueTime(), copy->enqueueOrder(), copy->sendTime()),
                  std::tuple(priority, needAck, original->getFrame(), enqueued, 0U, 0U));
        packets.push_back(copy);
    }
    for (size_t i = 1; i < packets.size(); ++i) {
        for (size_t j = 0; j < packets.size(); ++j)
            EXPECT_EQ(packets[i]->less(packets[j]), j != 0 && i > j) << i << ' ' << j;
    }
}

TEST_F(QueueTest, NullIsIgnoredEverywhere) {
    admit(2, 1);
    for (Packet hollow : {Packet(), Packet(new VeskQueue::QueuedPacket(1, true, nullptr))}) {
        queue->push(hollow);
        EXPECT_EQ(queue->removePacket(hollow), nullptr);
        EXPECT_FALSE(queue->replacePacket(hollow));
        std::lock_guard<std::mutex> const lock(queue->mutex());
        EXPECT_FALSE(queue->enqueuePacket(hollow) || !queue->addToHistoryList(hollow));
    }
    queue->enqueue(1, true, nullptr);
    queue->receiveFromChannel(nullptr);
    queue->receiveAckMessage(nullptr);
    {
        std::lock_guard<std::mutex> const lock(queue->mutex());
        queue->ackToPeer();  // nothing is owed
    }
    EXPECT_EQ(queue->size(), 1);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(QueueTest, ReplacesTheFirstFrameThatAgreesInAllItsNames) {
    std::vector<Packet> pending;
    for (int const differs : {0, 1, 2, 3, 4, 9, 9}) {
        auto const made = frame(differs == 4 ? 263 : 7, differs == 2 ? 3 : 2, differs == 3);
        made->topicId ^= uint8_t(differs == 0);
        made->businessId ^= uint8_t(differs == 1);
        made->serialNumber = 1;
        pending.push_back(new VeskQueue::QueuedPacket(2, true, made));
        queue->push(pending.back());
    }
    Packet update = packet(1, 7);
    update->getFrame()->data = {5};
    for (size_t const next : {5U, 6U, 7U}) {
        EXPECT_EQ(queue->replacePacket(update), next < 7);
        for (size_t i = 0; i < 7; ++i)
            EXPECT_EQ(pending[i]->getFrame()->data.size(), i >= 5 && i <= next) << i;
        EXPECT_EQ(pending[5]->getFrame()->serialNumber, 1);
        if (next < 7) queue->removePacket(pending[next]);
    }
}

TEST_F(QueueTest, EndOfAChainThatRunsEmptyIsKeptUntilTheNextAdmission) {
    for (bool const cleans : {true, false}) {
        Packet const last = admit(2, 1);
        cleans ? queue->cleanup() : void(queue->dequeuePacket());
        EXPECT_EQ(last->getStrongCount(), 2);
        admit(2, 2);
        EXPECT_EQ(last->getStrongCount(), 1);
        queue->dequeuePacket();
    }
}

TEST_F(QueueTest, PacketsMayMoveBetweenQueuesThatSend) {
    VeskQueue one, two;
    auto const move = [&](VeskQueue& from, VeskQueue& to, int first) {
        for (int id = first; id < first + 20000; ++id) {
            Packet fresh = packet(1, static_cast<uint16_t>(id));
            ASSERT_TRUE(eventually([&] { return one.size() < 900 && two.size() < 900; }));
            from.push(fresh);
            Packet moved = from.dequeuePacket();
            to.push(moved);
            if (id % 3 == 0) from.removePacket(fresh), from.push(fresh);
        }
    };
    std::thread there([&] { move(one, two, 0); }), back([&] { move(two, one, 30000); });
    there.join();
    back.join();
    EXPECT_TRUE(eventually([&] { return one.idle() && two.idle() && one.empty() && two.empty(); }));
    auto const ids = left();
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), 40000U);
}

TEST_F(QueueTest, PacketTakenOutInItsOwnSendMayBeAdmittedAgain) {
    Packet sent = packet(1, 1);
    auto const again = [&] { queue->push(sent), admit(1, 2); };
    std::pair<std::function<void()>, std::vector<int>> const ways[] = {
            {[&] { queue->dequeuePacket(), again(); }, {1, 3, 1, 2}},
            {[&] { queue->cleanup(), again(); }, {1, 1, 2}},
            {[&] { queue->removePacket(sent); }, {1, 3}}};  // nothing else wakes the looper
    for (auto const& way : ways) {
        callback->clear();
        callback->onSend([&](auto const&) { callback->onSend(nullptr), way.first(); });
        admitTogether({sent, packet(1, 3)});
        EXPECT_EQ(left(), way.second);
    }
}

TEST_F(QueueTest, PacketBelongsToTheQueueThatHoldsItAndItsCopyToNone) {
    VeskQueue other;
    Packet held = admit(2, 1), next = admit(2, 2), copy = new VeskQueue::QueuedPacket(*held);
    clock.jump(1);
    EXPECT_EQ(other.removePacket(held), nullptr);
    EXPECT_EQ(queue->removePacket(copy), nullptr);
    other.push(held);
    other.push(copy);
    EXPECT_EQ(other.dequeuePacket(), copy);
    EXPECT_EQ(std::tuple(other.refused(), held->enqueueTime(), copy->enqueueTime()),
              std::tuple(1U, clock.now() - 1, clock.now()));
    Packet const last = admit(2, 3);
    EXPECT_TRUE(queue->removePacket(next) == last && queue->removePacket(last) == nullptr);
    EXPECT_EQ(queue->dequeuePacket(), held);
}

TEST_F(QueueTest, APacketOfTheHostsOwnIsGoneOnceItHasLeft) {
    struct Watched : VeskQueue::QueuedPacket {
        Watched(std::shared_ptr<VeskFrame> frame, std::shared_ptr<int> lives)
            : QueuedPacket(1, false, std::move(frame)), mLives(std::move(lives)) {}
        std::shared_ptr<int> const mLives;
    };
    auto const lives = std::make_shared<int>();
    Packet packet = new Watched(frame(1), lives);
    {
        std::lock_guard<std::mutex> const lock(queue->mutex());
        queue->enqueuePacket(packet);
        packet = nullptr;
    }
    queue->wake();
    rest();
    EXPECT_EQ(lives.use_count(), 1);
}

TEST_F(QueueTest, OfPacketsThatAreTakenOutUnsentTheLastAloneIsKept) {
    std::vector<std::shared_ptr<VeskFrame>> frames;
    for (uint16_t id = 1; id <= 3; ++id) {
        frames.push_back(frame(id));
        Packet unsent = new VeskQueue::QueuedPacket(2, false, frames.back());
        std::unique_lock<std::mutex> lock(queue->mutex());
        queue->enqueuePacket(unsent);
        lock.unlock();
        queue->dequeuePacket();
    }
    EXPECT_EQ(frames[0].use_count() + frames[1].use_count(), 2);
}

}  // namespace
}  // namespace vesk
