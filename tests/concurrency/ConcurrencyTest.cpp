#include "support/VeskTest.h"

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

TEST_F(ConcurrencyTest, EverythingAtOnceLeavesAQueueThatWorks) {
    vesk->createTopic("virtualcomm", false);
    auto const topic = vesk->getTopic(1);
    peer.acknowledgeAll(callback);
    callback->onReceive([&](auto const& delivery) {
        auto const session = sessions->getSession(static_cast<uint16_t>(delivery.sessionId));
        if (session) session->send(false, frame(delivery.frame->msgId, 3), 1);
    });
    std::atomic<int> busy{4};
    std::vector<std::thread> threads;
    auto const repeat = [&](uint16_t rounds, std::function<void(uint16_t)> const& work) {
        threads.emplace_back([&busy, rounds, work] {
            for (uint16_t round = 0; round < rounds; ++round)
                work(round);
            --busy;
        });
    };
    repeat(6000, [&](uint16_t round) { topic->publish(false, frame(round), 1); });
    repeat(3000, [&](uint16_t round) {
        Packet held = packet(2 + round % 3, round, true);
        queue->push(held);
        queue->replacePacket(held);
        queue->removePacket(held);
        queue->dequeuePacket();
    });
    repeat(3000, [&](uint16_t round) {  // what comes from the channel
        peer.send(request(round));
        peer.acknowledge(round);
        clock.jump(round % 16 == 0 ? 700 : 1);
    });
    repeat(1000, [&](uint16_t) {  // the host's manager thread
        vesk->createTopic("test", false);
        join(1, PROVIDER);
        sessions->removeSession(static_cast<uint16_t>(join(1, CONSUMER)));
        sessions->removeSessionByClient(1);
        vesk->removeTopic("test");
    });
    while (busy > 0) {
        vesk->onChannelAvailable(false);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    for (auto& thread : threads)
        thread.join();

    callback->onReceive(nullptr);
    vesk->onChannelAvailable(false);
    clock.settle();
    callback->clear();
    queue->enqueue(1, true, frame(7));
    ASSERT_TRUE(callback->waitForSent(1));
    EXPECT_TRUE(eventually([&] { return queue->awaitingAck() == 0; }));
}

}  // namespace
}  // namespace vesk
