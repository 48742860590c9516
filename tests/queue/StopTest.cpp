#include "queue/QueueTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace vesk {
namespace {

/** How packets, frames and queues end. */
class StopTest : public QueueTest {
protected:
    std::shared_ptr<VeskQueue> own = std::make_shared<VeskQueue>();
};

TEST_F(StopTest, StoppedQueueRefusesAdmissionKeepsThePendingAndOwesNothing) {
    Packet held = packet(2, 4);
    own->push(held);
    own->stop();
    play({{[&] { own->enqueue(1, true, frame(5)); },
           "enqueue:5; priority:1|enqueuing packet:5|sending a packet to died queue|"
           "enqueue fail.|0 0 0 0 0 0 0, 0 0 0 0"}});
    EXPECT_EQ(own->dequeuePacket(), Packet());
    EXPECT_TRUE(own->replacePacket(held));
    own->receiveFromChannel(frame(1));
    EXPECT_EQ(std::tuple(own->size(), own->owedAcks(), own->feedback().receivedPackets(),
                         own->refused()),
              std::tuple(1, 0U, 1U, 1U));
    own->cleanup();
    EXPECT_EQ(held->getStrongCount(), 1);
}

TEST_F(StopTest, StopWaitsForTheSendUnderWay) {
    std::atomic<bool> open{false}, sent{false};
    std::atomic<int> begun{0};
    callback->onSend([&](auto const&) { sent = eventually([&] { return open.load(); }); });
    admitTogether({packet(1, 1), packet(1, 2)}, own.get());
    ASSERT_TRUE(callback->waitForSent(1));
    auto const stops = [&] {
        ++begun;
        own->stop();
        EXPECT_TRUE(sent);
    };
    std::thread first(stops), second(stops);
    EXPECT_TRUE(eventually([&] {
        own->enqueue(2, true, frame(3));
        return begun == 2 && log.contains("VeskQueue", "enqueue fail.");
    }));
    open = true;
    first.join();
    second.join();
    EXPECT_EQ(left(), std::vector<int>{1});
}

TEST_F(StopTest, TheThreadIsGoneWithWhatTheHostKeepsInItWhenStopReturns) {
    static std::atomic<bool> isGone{false};
    struct Kept {
        ~Kept() {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            isGone = true;
        }
    };
    callback->onSend([](auto const&) { thread_local Kept const kept; });
    own->enqueue(1, false, frame(1));
    ASSERT_TRUE(callback->waitForSent(1));
    own->stop();
    EXPECT_TRUE(isGone);
}

TEST_F(StopTest, NothingIsSentOnceAFramesDestructorHasStoppedTheQueue) {
    std::atomic<size_t> atStop{0};
    auto const stops = [&](VeskFrame* last) {
        delete last;
        own->stop();
        if (atStop == 0) atStop = callback->sentCount();
    };
    std::vector<Packet> packets(5);
    for (Packet& packet : packets) {
        packet = new VeskQueue::QueuedPacket(1, false,
                                             std::shared_ptr<VeskFrame>(new VeskFrame, stops));
    }
    admitTogether(std::move(packets), own.get());
    EXPECT_TRUE(eventually([&] { return atStop != 0; }));
    own->stop();
    EXPECT_EQ(callback->sentCount(), atStop);
    own->cleanup();  // while the deleter lasts
}

TEST_F(StopTest, LastOwnerOfAQueueMayGoAnywhereOnItsOwnLooper) {
    struct Owner {
        VeskFrame frame;
        std::shared_ptr<VeskQueue> queue = std::make_shared<VeskQueue>();
    };
    std::thread stopper;
    std::function<void(VeskQueue&, Owner&)> const ways[] = {
            [&](VeskQueue&, Owner&) {},
            [&](VeskQueue& mine, Owner&) { mine.stop(); },
            [&](VeskQueue&, Owner& owner) { owner.queue.reset(); },
            [&](VeskQueue& mine, Owner&) {  // while another thread waits for its end
                stopper = std::thread([&mine] { mine.stop(); });
                EXPECT_TRUE(eventually([&] {
                    return mine.enqueue(2, true, frame(3)),
                           log.contains("VeskQueue", "enqueue fail.");
                }));
            },
            [&](VeskQueue&, Owner&) { clock.jump(2000); },
            [&](VeskQueue& mine, Owner&) { mine.cleanup(); },
            [&](VeskQueue&, Owner& owner) { FarPeer(owner.queue).acknowledge(0); }};
    for (auto const& way : ways) {
        std::atomic<bool> alone{false};
        auto owner = std::make_shared<Owner>();
        std::weak_ptr<Owner> const watched = owner;
        callback->onSend([&, mine = owner->queue.get(), raw = owner.get()](auto const&) {
            callback->onSend(nullptr);
            EXPECT_TRUE(eventually([&] { return alone.load(); }));
            way(*mine, *raw);
        });
        Packet sent = new VeskQueue::QueuedPacket(1, &way - ways > 3, {owner, &owner->frame});
        admitTogether({sent, packet(1, 2)}, owner->queue.get());
        sent.clear();
        owner.reset();
        alone = true;
        EXPECT_TRUE(eventually([&] { return watched.expired(); })) << &way - ways;
    }
    stopper.join();
}

TEST_F(StopTest, AQueueLetsGoOfWhatWasPendingWithIt) {
    auto const one = frame(1), two = frame(2);
    own->enqueue(2, true, one);
    own->enqueue(2, true, two);
    own = nullptr;
    EXPECT_EQ(one.use_count() + two.use_count(), 2);
}

TEST_F(StopTest, AChildProcessDoesNotWaitForAThreadThatItDoesNotHave) {
    std::unique_lock<std::mutex> const lock(own->mutex());  // in the child nobody gives it back
    pid_t const child = fork();
    if (child == 0) {
        alarm(5);  // instead of a hang
        own->stop(), own.reset(), _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace vesk
