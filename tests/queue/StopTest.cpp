#include "support/VeskTest.h"

#include <thread>

namespace vesk {
namespace {

/** Queues that do not live as long as the process. */
class StopTest : public VeskTest {
protected:
    std::shared_ptr<VeskQueue> own = std::make_shared<VeskQueue>();
};

TEST_F(StopTest, StoppedQueueRefusesAdmissionAndSaysSo) {
    own->stop();
    own->stop();
    own->enqueue(1, true, frame(5));
    EXPECT_EQ(log.count("VeskQueue", "sending a packet to died queue"), 1U);
    EXPECT_EQ(log.messages("VeskQueue").back(), "enqueue fail.");
    EXPECT_EQ(own->dequeuePacket(), Packet());
    own->receiveFromChannel(frame(1));
    EXPECT_EQ(own->owedAcks(), 0U);
}

TEST_F(StopTest, StopWaitsForTheSendUnderWay) {
    std::atomic<bool> open{false}, sent{false};
    callback->onSend([&](auto const&) { sent = eventually([&] { return open.load(); }); });
    own->enqueue(1, true, frame(1));
    own->enqueue(1, true, frame(2));
    ASSERT_TRUE(callback->waitForSent(1));
    std::thread stopper([&] {
        own->stop();
        EXPECT_TRUE(sent);
    });
    Packet late = packet(9, 3);
    EXPECT_TRUE(eventually([&] {  // refused: it is stopping
        std::lock_guard<std::mutex> const lock(own->mutex());
        return !own->enqueuePacket(late) && !log.lines().empty() &&
               log.lines().back().message == "sending a packet to died queue";
    }));
    open = true;
    stopper.join();
    EXPECT_EQ(left(), std::vector<int>{1});
}

TEST_F(StopTest, QueueMayStopOrEndInsideItsOwnSend) {
    for (bool const destroyed : {false, true}) {
        SCOPED_TRACE(destroyed);
        std::atomic<bool> ended{false};
        auto mine = std::make_shared<VeskQueue>();
        auto const waiting = frame(2);
        callback->onSend([&](auto const&) {
            mine->enqueue(1, true, waiting);
            mine->stop();
            if (destroyed) mine.reset();
            ended = true;
        });
        mine->enqueue(1, true, frame(1));
        ASSERT_TRUE(eventually([&] { return ended.load(); }));
        mine.reset();
        EXPECT_TRUE(eventually([&] { return waiting.use_count() == 1; }));
    }
    EXPECT_EQ(left(), (std::vector<int>{1, 1}));
}

}  // namespace
}  // namespace vesk
