// What each step of a frame's way costs: scripts/bench runs this. Where the looper takes part, an
// operation is one of a batch, so that the cost of waking it is shared as it is under load.

#include <benchmark/benchmark.h>

#include <cstdlib>

#include "BenchLibrary.h"

namespace {

using namespace vesk;
using bench::Frame;
using bench::Library;
using bench::makeFrame;
using Packet = android::sp<VeskQueue::QueuedPacket>;

constexpr size_t BATCH = 50;

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
    for (int64_t i = 0; i < state.range(0); ++i)
        library.sendAndWait(1, &serials);
    library.isSetUp();
    for (auto _ : state) {
        library.sendAndWait(BATCH, which == NONE ? nullptr : &serials);
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
    std::vector<uint16_t> awaiting;
    library.sendAndWait(900, &awaiting);
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
