#include "support/VeskTest.h"

#include <thread>

namespace vesk {
namespace {

class ConcurrencyTest : public VeskTest {
protected:
    using Work = std::function<void(uint16_t round)>;

    void repeat(int rounds, Work const& work) {
        mThreads.emplace_back([this, work, rounds] {
            while (!mStarted)
                std::this_thread::yield();
            for (int round = 0; round < rounds; ++round)
                work(static_cast<uint16_t>(round));
        });
    }

    void runAll() {
        mStarted = true;
        for (auto& thread : mThreads)
            thread.join();
    }

private:
    std::atomic<bool> mStarted{false};
    std::vector<std::thread> mThreads;
};

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
        if (auto const session = sessions->getSession(static_cast<uint16_t>(delivery.sessionId))) {
            session->send(false, frame(delivery.frame->msgId, 3), 1);
        }
    });
    for (int producer = 0; producer < 3; ++producer) {
        repeat(3000, [&](uint16_t round) { topic->publish(false, frame(round), 1); });
    }
    repeat(3000, [&](uint16_t round) {
        Packet held = packet(2 + round % 3, round, true);
        queue->push(held);
        Packet update = packet(2, round);
        queue->replacePacket(update);
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
        for (int client : {1, 2})
            join(client, PROVIDER);
        int const consumer = join(1, CONSUMER);
        sessions->removeSession(static_cast<uint16_t>(consumer));
        for (uint32_t client : {1U, 2U})
            sessions->removeSessionByClient(client);
        vesk->removeTopic("test");
    });
    repeat(300, [&](uint16_t) {
        vesk->onChannelAvailable(false);
        queue->wake();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    });
    runAll();

    callback->onReceive(nullptr);
    vesk->onChannelAvailable(false);
    clock.settle();
    callback->clear();
    EXPECT_EQ(queue->size(), 0);
    queue->enqueue(1, true, frame(7));
    ASSERT_TRUE(callback->waitForSent(1));
    EXPECT_TRUE(eventually([&] { return queue->awaitingAck() == 0; }));
}

}  // namespace
}  // namespace vesk
