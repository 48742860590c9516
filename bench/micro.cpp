// What each step of a frame's way costs: scripts/bench runs this. Where the looper takes part, an
// operation is one of a batch, so that the cost of waking it is shared as it is under load.

#include <benchmark/benchmark.h>

#include <cstdlib>

#include <vesk/VeskProtocol.h>

#include "BenchHost.h"
#include "CountedHeap.h"

namespace {

using namespace vesk;
using Frame = std::shared_ptr<VeskFrame>;
using Packet = android::sp<VeskQueue::QueuedPacket>;

constexpr size_t BATCH = 50;
constexpr size_t PAYLOAD = 64;

Frame makeFrame(uint8_t type = REQUEST, uint16_t reply = 0, size_t payload = PAYLOAD) {
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

    std::shared_ptr<VeskSession> join(int type) {
        int const id = sessions->createSession(1, type, "test", "test", type == 1);
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

    void sendAndWait(std::vector<Frame> const& frames) {
        uint64_t const before = host->sent();
        for (Frame const& frame : frames)
            send(frame);
        host->waitForSent(before + frames.size());
    }

    void acknowledge(std::vector<uint16_t> const& serials) {
        auto ack = std::make_shared<VeskFrame>();
        ack->topicId = ack->businessId = ACK_ID;
        ack->msgType = ACKNOWLEDGEMENT;
        ack->reply = uint16_t(serials.size());
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

void serialise(benchmark::State& state) {
    Library library(state);
    Frame const frame = makeFrame(REQUEST, 0, size_t(state.range()));
    library.isSetUp();
    for (auto _ : state) {
        std::vector<uint8_t> bytes;
        frame->serialze(bytes);
        benchmark::DoNotOptimize(bytes.data());
    }
}

void parse(benchmark::State& state) {
    Library library(state);
    std::vector<uint8_t> bytes;
    makeFrame(REQUEST, 0, size_t(state.range()))->serialze(bytes);
    library.isSetUp();
    for (auto _ : state) {
        auto frame = VeskFrame::obtainFrame(false);
        benchmark::DoNotOptimize(frame->unSerialze(bytes));
    }
}

void admission(benchmark::State& state) {
    Library library(state);
    library.fillChain(state.range());
    Packet packet = new VeskQueue::QueuedPacket(IMMEDIATE_PRIORITY, false, makeFrame());
    library.isSetUp();
    for (auto _ : state) {
        library.queue->push(packet);
        library.queue->removePacket(packet);
    }
}

enum Acknowledged { NONE, OLDEST, NEWEST };

// With so many awaiting acknowledgement throughout. A frame that is not acknowledged is superseded.
void outbound(benchmark::State& state) {
    Library library(state);
    library.operationsPerIteration(BATCH);
    auto const which = static_cast<Acknowledged>(state.range(1));
    std::vector<uint16_t> serials;  // awaiting, oldest first
    for (int64_t i = 0; i < state.range(0); ++i) {
        Frame const frame = makeFrame();
        serials.push_back(frame->serialNumber);
        library.sendAndWait({frame});
    }
    library.isSetUp();
    for (auto _ : state) {
        std::vector<Frame> frames;
        for (size_t i = 0; i < BATCH; ++i) {
            frames.push_back(makeFrame());
            if (which == NONE) frames.back()->msgId = 1;
            if (which != NONE) serials.push_back(frames.back()->serialNumber);
        }
        library.sendAndWait(frames);
        for (size_t i = 0; which != NONE && i < BATCH; i += ACK_BATCH_COUNT) {
            auto const first = which == OLDEST ? serials.begin() : serials.end() - ACK_BATCH_COUNT;
            auto const last = first + ACK_BATCH_COUNT;
            library.acknowledge({first, last});
            serials.erase(first, last);
        }
    }
}

void inbound(benchmark::State& state) {
    Library library(state);
    library.operationsPerIteration(BATCH);
    std::vector<uint8_t> bytes;
    makeFrame()->serialze(bytes);
    library.isSetUp();
    for (auto _ : state) {
        for (size_t i = 0; i < BATCH; ++i) {
            auto const frame = VeskFrame::obtainFrame(false);
            frame->unSerialze(bytes);
            library.queue->receiveFromChannel(frame);
        }
    }
}

void replyRouting(benchmark::State& state) {
    Library library(state);
    std::vector<Frame> replies;
    for (int64_t i = 1; i < state.range(); ++i)
        replies.push_back(makeFrame(REPLY, library.join(1)->sessionId()));
    auto const topic = library.vesk->getTopic(2);
    library.isSetUp();
    size_t next = 0;
    for (auto _ : state) {
        topic->receive(false, replies[next]);
        next = (next + 7919) % replies.size();
    }
}

void sessionCreation(benchmark::State& state) {
    Library library(state);
    for (int64_t i = 1; i < state.range(); ++i)
        library.join(1);
    library.isSetUp();
    for (auto _ : state) {
        library.sessions->removeSession(library.join(1)->sessionId());
    }
}

void acknowledgementApplied(benchmark::State& state) {
    Library library(state);
    std::vector<uint16_t> const unknown(size_t(state.range()), 0);
    std::vector<Frame> awaiting;
    for (size_t i = 0; i < 900; ++i)
        awaiting.push_back(makeFrame());
    library.sendAndWait(awaiting);
    library.isSetUp();
    for (auto _ : state)
        library.acknowledge(unknown);
}

// A script that counts instructions wants the same number of iterations in each run.
void fixIterations(benchmark::internal::Benchmark* bench) {
    if (char const* count = std::getenv("VESK_BENCH_ITERATIONS"))
        bench->Iterations(std::atoi(count));
}

BENCHMARK(serialise)->Arg(0)->Arg(64)->Arg(1024)->Arg(65535)->Apply(fixIterations);
BENCHMARK(parse)->Arg(0)->Arg(64)->Arg(1024)->Arg(65535)->Apply(fixIterations);
BENCHMARK(admission)->Arg(1)->Arg(100)->Arg(999)->Apply(fixIterations);
BENCHMARK(outbound)
        ->ArgsProduct({{1, 100, 900}, {NONE, OLDEST, NEWEST}})
        ->UseRealTime()
        ->Apply(fixIterations);
BENCHMARK(inbound)->UseRealTime()->Apply(fixIterations);
BENCHMARK(replyRouting)->Arg(10)->Arg(1000)->Arg(60000)->Apply(fixIterations);
BENCHMARK(sessionCreation)->Arg(10)->Arg(1000)->Arg(60000)->Apply(fixIterations);
BENCHMARK(acknowledgementApplied)->Arg(5)->Arg(1000)->Arg(16383)->Apply(fixIterations);

}  // namespace

BENCHMARK_MAIN();
