#include "support/VeskTest.h"

#include <quillex/Log.h>

#include <algorithm>
#include <thread>

namespace vesk {
namespace {

class ConcurrencyTest : public VeskTest {};

TEST_F(ConcurrencyTest, NoWakeUpIsLostBetweenOnePacketAndTheNext) {
    for (uint16_t id = 1; id <= 20000; ++id) {
        queue->enqueue(1, false, frame(id));
        ASSERT_TRUE(callback->waitForSent(id)) << "packet " << id << " lies in the queue";
    }
}

constexpr int PRODUCERS = 4;
constexpr uint32_t ROUNDS = VESK_CONCURRENCY_FRAMES / PRODUCERS;
constexpr uint32_t CUT_ROUNDS = ROUNDS * 9 / 10;  // the channel stays from here on
constexpr uint8_t KEPT_BUSINESS = 10;             // of topic 1, as are 1 to 4, the producers'

/** Calls the library from every operation, takes no lock, and knows what has left and arrived. */
struct BusyHost : VeskCallback {
    static std::shared_ptr<VeskFrame> number(uint8_t producer, uint32_t n) {
        auto frame = VeskFrame::obtainFrame(true);
        frame->topicId = 1;
        frame->businessId = producer;
        frame->reply = static_cast<uint16_t>(n >> 16);
        frame->msgId = static_cast<uint16_t>(n);
        return frame;
    }

    void sendToChannel(std::vector<uint8_t> bytes) override {
        FarPeer::Frame const sent = FarPeer::decode(bytes);
        if (FarPeer::isAck(sent)) return;
        peer.acknowledge(sent.serialNumber);
        if (sent.topicId != 1 || sent.businessId > PRODUCERS) return;
        left[sent.businessId - 1U].push_back(uint32_t{sent.reply} << 16 | sent.msgId);
    }
    void receive(uint32_t, uint32_t id, bool local,
                 std::shared_ptr<VeskFrame> const& frame) override {
        if (frame->businessId == KEPT_BUSINESS && !local) ++arrived;
        auto const session = vesk->getSessionManager()->getSession(static_cast<uint16_t>(id));
        if (session) session->send(false, number(KEPT_BUSINESS, 0), 1);
    }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string topic, std::string business) override {
        auto* const sessions = vesk->getSessionManager();
        sessions->removeSession(
                static_cast<uint16_t>(sessions->createSession(2, 1, topic, business, false)));
    }

    Vesk* vesk = Vesk::getInstance();
    FarPeer peer;
    std::vector<uint32_t> left[PRODUCERS];
    std::atomic<uint32_t> arrived{0};
};

TEST_F(ConcurrencyTest, EverythingAtOnceLosesNothingAndLeavesInOrder) {
    quillex::Log::setSink(nullptr);  // its lock would put the threads in order
    android::sp<BusyHost> const host = new BusyHost;
    vesk->init(host);
    vesk->createTopic("virtualcomm", false);
    sessions->createSession(1, PROVIDER, "virtualcomm", "cell0", false);
    auto const mindTheBound = [&] {  // the one thing that a sender has to do
        while (queue->size() > 900)
            std::this_thread::yield();
    };
    std::atomic<int> working{PRODUCERS}, cutting{PRODUCERS};
    std::vector<std::thread> threads;
    for (uint8_t id = 1; id <= PRODUCERS; ++id) {
        threads.emplace_back([&, id, topic = vesk->getTopic(1)] {
            for (uint32_t n = 1; n <= ROUNDS; ++n) {
                mindTheBound();
                if (n == CUT_ROUNDS) --cutting;
                while (n == CUT_ROUNDS && cutting >= 0)
                    std::this_thread::yield();
                auto const frame = BusyHost::number(id, n);
                id % 2 ? queue->enqueue(1, id == 1, frame) : topic->publish(false, frame, 1);
            }
            --working;
        });
    }
    auto const meanwhile = [&](std::function<void(uint16_t)> const& work) {
        threads.emplace_back([&, work] {
            for (uint16_t round = 0; working > 0; ++round)
                work(round);
        });
    };
    uint32_t requests = 0;
    meanwhile([&](uint16_t round) {  // what comes from the channel
        ++requests;
        peer.send(FarPeer::Frame{1, KEPT_BUSINESS, 2, 0, round, round, {}});
        peer.send(request(round));
        mindTheBound();
    });
    meanwhile([&](uint16_t round) {  // never waits: it makes room
        peer.acknowledge(round);
        clock.jump(round % 1024 == 0 ? 700 : 1);
        Packet held = packet(2 + round % 3, round, true);
        queue->push(held), queue->replacePacket(held), queue->removePacket(held);
    });
    meanwhile([&](uint16_t) {  // the host's manager thread
        vesk->createTopic("test", false);
        join(3, PROVIDER);
        sessions->removeSession(static_cast<uint16_t>(join(1, CONSUMER)));
        sessions->removeSessionByClient(3);
        vesk->removeTopic("test");
        mindTheBound();
    });
    while (cutting > 0) {
        vesk->onChannelAvailable(false);
        queue->dequeuePacket();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    cutting = -1;
    for (auto& thread : threads)
        thread.join();

    clock.settle();
    EXPECT_EQ(host->arrived, requests);
    for (auto const& left : host->left) {
        EXPECT_EQ(std::adjacent_find(left.begin(), left.end(), std::greater_equal<>()), left.end());
        auto const kept = std::lower_bound(left.begin(), left.end(), CUT_ROUNDS);
        EXPECT_EQ(left.end() - kept, ROUNDS - CUT_ROUNDS + 1);
    }
}

}  // namespace
}  // namespace vesk
