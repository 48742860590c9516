// What an operation costs when more sessions, packets or bytes are there: scripts/bench --growth
// runs this. Each benchmark's argument is that number. The time is the processor's, in all threads.

#include <cstdint>
#include <ctime>

#include "BenchLibrary.h"

namespace {

using namespace vesk;
using bench::Frame;
using bench::Library;
using bench::makeFrame;

constexpr size_t BATCH = 50;
constexpr int CONSUMER = VeskSessionManager::CONSUMER;

void joinAll(Library& library, int64_t count, std::vector<Frame>& replies) {
    for (int64_t i = 1; i < count; ++i)
        replies.push_back(makeFrame(REPLY, library.join(CONSUMER)->sessionId()));
}

void sessions_routeARequest(benchmark::State& state) {
    Library library(state);
    std::vector<Frame> replies;
    joinAll(library, state.range(), replies);
    auto const topic = library.vesk->getTopic(2);
    Frame const request = makeFrame(REQUEST, 1);
    for (auto _ : state)
        topic->receive(false, request);
}

void sessions_routeAReply(benchmark::State& state) {
    Library library(state);
    std::vector<Frame> replies;
    joinAll(library, state.range(), replies);
    auto const topic = library.vesk->getTopic(2);
    size_t next = 0;
    for (auto _ : state) {
        topic->receive(false, replies[next]);
        next = (next + 7919) % replies.size();
    }
}

void sessions_createAndRemove(benchmark::State& state) {
    Library library(state);
    std::vector<Frame> replies;
    joinAll(library, state.range(), replies);
    for (auto _ : state)
        library.sessions->removeSession(library.join(CONSUMER)->sessionId());
}

void sessions_createAndRemoveByClient(benchmark::State& state) {
    Library library(state);
    std::vector<Frame> replies;
    joinAll(library, state.range(), replies);
    for (auto _ : state) {
        library.join(CONSUMER, 2);
        library.sessions->removeSessionByClient(2);
    }
}

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

/** Takes the time of `operation` alone, which wants everything made anew. */
template <typename Prepare, typename Operation>
void timeAlone(benchmark::State& state, Prepare const& prepare, Operation const& operation) {
    for (auto _ : state) {
        prepare();
        double const start = processorSeconds();
        operation();
        state.SetIterationTime(processorSeconds() - start);
    }
}

void sessions_removeTheTopic(benchmark::State& state) {
    Library library(state);
    timeAlone(
            state,
            [&] {
                library.sessions->removeSessionByClient(1);
                library.vesk->createTopic("test", false);
                for (int64_t i = 0; i < state.range(); ++i)
                    library.join(CONSUMER);
            },
            [&] { library.vesk->removeTopic("test"); });
}

void sessions_removeAClientWithAll(benchmark::State& state) {
    Library library(state);
    timeAlone(
            state,
            [&] {
                for (int64_t i = 0; i < state.range(); ++i)
                    library.join(CONSUMER, 2);
            },
            [&] { library.sessions->removeSessionByClient(2); });
    state.counters["each"] = double(state.range());
}

void pending_admit(benchmark::State& state) {
    Library library(state);
    library.fillChain(state.range());
    android::sp<VeskQueue::QueuedPacket> packet =
            new VeskQueue::QueuedPacket(IMMEDIATE_PRIORITY, false, makeFrame());
    for (auto _ : state) {
        library.queue->push(packet);
        library.queue->removePacket(packet);
    }
}

/** Sends a batch and has the oldest that await it, as many, acknowledged. */
void sendBatches(Library& library, benchmark::State& state, int64_t awaiting, size_t payload) {
    std::vector<uint16_t> serials;
    for (int64_t i = 0; i < awaiting; ++i)
        library.sendAndWait(1, &serials);
    for (auto _ : state) {
        library.sendAndWait(BATCH, &serials, payload);
        for (size_t i = 0; i < BATCH; i += ACK_BATCH_COUNT) {
            auto const end = serials.begin() + ACK_BATCH_COUNT;
            library.acknowledge({serials.begin(), end});
            serials.erase(serials.begin(), end);
        }
    }
    state.counters["each"] = double(BATCH);
}

void awaiting_sendAndAcknowledge(benchmark::State& state) {
    Library library(state);
    sendBatches(library, state, state.range(), 64);
}

void payload_sendAndAcknowledge(benchmark::State& state) {
    Library library(state);
    sendBatches(library, state, 1, size_t(state.range()));
}

void payload_receive(benchmark::State& state) {
    Library library(state);
    std::vector<uint8_t> bytes;
    makeFrame(REQUEST, 0, size_t(state.range()))->serialze(bytes);
    for (auto _ : state) {
        for (size_t i = 0; i < BATCH; ++i) {
            auto const frame = VeskFrame::obtainFrame(false);
            frame->unSerialze(bytes);
            library.queue->receiveFromChannel(frame);
        }
    }
    state.counters["each"] = double(BATCH);
}

void numbersOfSessions(benchmark::internal::Benchmark* bench) {
    bench->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Arg(60000);
}

void numbersOfPackets(benchmark::internal::Benchmark* bench) {
    bench->Arg(1)->Arg(10)->Arg(100)->Arg(950);  // a batch of 50 comes on top
}

void sizesOfPayload(benchmark::internal::Benchmark* bench) {
    bench->Arg(0)->Arg(64)->Arg(1024)->Arg(8192)->Arg(65535);
}

BENCHMARK(sessions_routeARequest)->Apply(numbersOfSessions)->MeasureProcessCPUTime();
BENCHMARK(sessions_routeAReply)->Apply(numbersOfSessions)->MeasureProcessCPUTime();
BENCHMARK(sessions_createAndRemove)->Apply(numbersOfSessions)->MeasureProcessCPUTime();
BENCHMARK(sessions_createAndRemoveByClient)->Apply(numbersOfSessions)->MeasureProcessCPUTime();
BENCHMARK(sessions_removeTheTopic)->Apply(numbersOfSessions)->UseManualTime()->Iterations(4);
BENCHMARK(sessions_removeAClientWithAll)->Apply(numbersOfSessions)->UseManualTime()->Iterations(4);
BENCHMARK(pending_admit)->Apply(numbersOfPackets)->MeasureProcessCPUTime();
BENCHMARK(awaiting_sendAndAcknowledge)->Apply(numbersOfPackets)->MeasureProcessCPUTime();
BENCHMARK(payload_sendAndAcknowledge)->Apply(sizesOfPayload)->MeasureProcessCPUTime();
BENCHMARK(payload_receive)->Apply(sizesOfPayload)->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
