#pragma once

#include <array>

#include "support/VeskTest.h"

namespace vesk {

class QueueTest : public VeskTest {
protected:
    Packet admit(int priority, uint16_t msgId) {
        Packet made = packet(priority, msgId);
        queue->push(made);
        return made;
    }

    /** Admits under the lock, so that the looper finds all of them pending at once. */
    void admitTogether(std::vector<Packet> packets, VeskQueue* into = nullptr) {
        VeskQueue& to = into ? *into : *queue;
        {
            std::lock_guard<std::mutex> const lock(to.mutex());
            for (Packet& packet : packets)
                ASSERT_TRUE(to.enqueuePacket(packet));
        }
        into ? into->wake() : clock.settle();
    }

    /** 1 to 1000, each to be acknowledged. */
    void fill(int priority) {
        for (uint16_t id = 1; id <= 1000; ++id)
            queue->enqueue(priority, true, frame(id));
        clock.settle();
    }

    /** Does something on the looper's thread, while the channel takes packet 999. */
    void duringSend(std::function<void()> const& work) {
        callback->onSend([&](auto const&) { callback->onSend(nullptr), work(); });
        queue->enqueue(1, false, frame(999));
        rest();
    }

    void receive(uint16_t from, uint16_t to) {
        for (uint16_t serial = from; serial <= to; ++serial)
            peer.send(request(serial));
    }

    /**
     * Pending, awaiting acknowledgement and owed; sent, received, last delay and slow ones; and
     * since the test began: acknowledged, timed out, superseded and refused.
     */
    std::string state() const {
        std::string text;
        for (size_t i = 0; i < mBefore.size(); ++i)
            text += (i == 0 ? "" : i == 7 ? ", " : " ") + std::to_string(numbers()[i] - mBefore[i]);
        return text;
    }

    /**
     * Step by step: the lines that a call makes the queue log, each ended by '|', and its state.
     */
    void play(std::vector<std::pair<std::function<void()>, std::string>> const& steps) {
        for (auto const& [call, expected] : steps) {
            log.clear();
            call();
            rest();
            std::string text;
            for (std::string const& line : log.messages("VeskQueue"))
                text += line + "|";
            EXPECT_EQ(text + state(), expected);
        }
    }

private:
    std::array<uint64_t, 11> numbers() const {
        VeskFeedback const& count = queue->feedback();
        return {uint64_t(queue->size()), queue->awaitingAck(),    queue->owedAcks(),
                count.sentPackets(),     count.receivedPackets(), count.delay(),
                count.slowCount(),       queue->acknowledged(),   queue->timedOut(),
                queue->superseded(),     queue->refused()};
    }

    std::array<uint64_t, 11> const mBefore = numbers();  // the last four of them are never reset
};

}  // namespace vesk
