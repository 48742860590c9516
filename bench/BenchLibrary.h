#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <vesk/VeskProtocol.h>

#include "BenchHost.h"
#include "CountedHeap.h"

namespace vesk::bench {

using Frame = std::shared_ptr<VeskFrame>;

/** A frame of topic 2's business, to leave or to come in. */
constexpr size_t PAYLOAD = 64;

inline Frame makeFrame(uint8_t type = REQUEST, uint16_t reply = 0, size_t payload = PAYLOAD) {
    auto frame = VeskFrame::obtainFrame(true);
    frame->topicId = 2;
    frame->businessId = 1;
    frame->msgType = type;
    frame->reply = reply;
    frame->msgId = frame->serialNumber;
    frame->data.resize(payload);
    return frame;
}

/** The library with a host, a topic and one provider; as it was again at the end. */
class Library {
public:
    explicit Library(benchmark::State& state) : mState(state) {
        vesk->init(host);
        vesk->createTopic("test", false);
        provider = join(VeskSessionManager::PROVIDER);
        mAllocations = CountedHeap::allocations;
    }
    ~Library() {
        // Before anything is torn down, which allocates too.
        double const made = double(CountedHeap::allocations - mAllocations - mSetUp);
        mState.counters["allocations"] =
                benchmark::Counter(made / double(mState.iterations()) / double(mPerIteration));
        mState.SetItemsProcessed(mState.iterations() * int64_t(mPerIteration));
        host->hold(false);
        sessions->removeSessionByClient(1);
        vesk->onChannelAvailable(false);
    }

    /** Each iteration of the benchmark is so many operations. */
    void operationsPerIteration(size_t count) { mPerIteration = count; }
    /** What has been allocated until now belongs to no operation. */
    void isSetUp() { mSetUp = CountedHeap::allocations - mAllocations; }

    std::shared_ptr<VeskSession> join(int type, int client = 1) {
        int const id = sessions->createSession(client, type, "test", "test", type == 1);
        return sessions->getSession(uint16_t(id));
    }

    void send(Frame const& frame) { provider->send(false, frame, IMMEDIATE_PRIORITY); }

    /** Keeps so many packets pending behind a write that is held. */
    void fillChain(int64_t count) {
        host->hold(true);
        uint64_t const before = host->sent();
        for (int64_t i = 0; i < count; ++i) {
            queue->enqueue(i == 0 ? IMMEDIATE_PRIORITY : IMMEDIATE_PRIORITY + 1, false,
                           makeFrame());
            if (i == 0) host->waitForSent(before + 1);
        }
    }

    /** Sends new frames and keeps their serials; where it need not, all have one msgId. */
    void sendAndWait(size_t count, std::vector<uint16_t>* serials, size_t payload = PAYLOAD) {
        uint64_t const before = host->sent();
        for (size_t i = 0; i < count; ++i) {
            Frame const frame = makeFrame(REQUEST, 0, payload);
            if (serials) serials->push_back(frame->serialNumber);
            if (!serials) frame->msgId = 1;
            send(frame);
        }
        host->waitForSent(before + count);
    }

    void acknowledge(std::vector<uint16_t> const& serials) {
        auto ack = std::make_shared<VeskFrame>();
        ack->topicId = ack->businessId = ACK_ID;
        ack->msgType = ACKNOWLEDGEMENT;
        ack->reply = uint16_t(serials.size());
        ack->data.reserve(ACK_ENTRY_SIZE * serials.size());
        for (uint16_t serial : serials) {
            uint8_t const entry[] = {0, 0, uint8_t(serial), uint8_t(serial >> 8)};
            ack->data.insert(ack->data.end(), entry, entry + ACK_ENTRY_SIZE);
        }
        queue->receiveFromChannel(ack);
    }

    Vesk* const vesk = Vesk::getInstance();
    VeskSessionManager* const sessions = vesk->getSessionManager();
    std::shared_ptr<VeskQueue> const queue = vesk->getQueue();
    android::sp<BenchHost> const host = new BenchHost;
    std::shared_ptr<VeskSession> provider;

private:
    benchmark::State& mState;
    size_t mAllocations = 0;
    size_t mSetUp = 0;
    size_t mPerIteration = 1;
};

}  // namespace vesk::bench
