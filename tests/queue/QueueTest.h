#pragma once

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
    void admitTogether(std::vector<Packet> packets) {
        {
            std::lock_guard<std::mutex> const lock(queue->mutex());
            for (Packet& packet : packets)
                ASSERT_TRUE(queue->enqueuePacket(packet));
        }
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

    /** Pending, awaiting acknowledgement and owed; sent, received, last delay and slow ones. */
    std::string state() const {
        VeskFeedback const& count = queue->feedback();
        std::string text = std::to_string(queue->size());
        for (size_t const number :
             {queue->awaitingAck(), queue->owedAcks(), size_t{count.sentPackets()},
              size_t{count.receivedPackets()}, size_t{count.delay()}, size_t{count.slowCount()}})
            text += " " + std::to_string(number);
        return text;
    }

    /** The queue's lines since the last call of this, each ended by '|', and its state at rest. */
    std::string told() {
        rest();
        std::string text;
        for (std::string const& line : log.messages("VeskQueue"))
            text += line + "|";
        log.clear();
        return text + state();
    }

    /** The acknowledgement frames that have left. */
    std::vector<std::vector<FarPeer::Ack>> acks() const {
        std::vector<std::vector<FarPeer::Ack>> found;
        for (auto const& bytes : callback->sent()) {
            FarPeer::Frame const frame = FarPeer::decode(bytes);
            if (FarPeer::isAck(frame)) found.push_back(FarPeer::ackEntries(frame));
        }
        return found;
    }
};

}  // namespace vesk
