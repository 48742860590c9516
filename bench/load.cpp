// Answers requests as fast as they can be handed over, each acknowledged at once, and prints the
// rate and how much of the heap is in use, at rest, after a hundredth of them and after all:
// vesk_load [REQUESTS]. The exit status is 0 where both uses are the same, 1 where they differ and
// 2 after a wrong argument.

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <vesk/Vesk.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

#include "CountedHeap.h"

namespace {

using vesk::testkit::FarPeer;

constexpr size_t LEAST = 100;  // of fewer there is no hundredth
constexpr size_t BURST = 900;

size_t requestsFrom(int argc, char** argv) {
    if (argc < 2) return 1000000;
    char const* const end = argv[1] + std::strlen(argv[1]);
    size_t requests = 0;
    auto const [last, error] = std::from_chars(argv[1], end, requests);
    if (argc == 2 && error == std::errc() && last == end && requests >= LEAST) return requests;
    std::fprintf(stderr, "vesk_load: give one whole number of requests, from %zu, or nothing\n",
                 LEAST);
    std::exit(2);
}

// A session keeps its topic, which is removed, and so one of those that the manager remembers.
void keepRemovedTopic(vesk::Vesk& vesk) {
    vesk.createTopic("virtualcomm", false);
    vesk.getSessionManager()->createSession(1, 1, "virtualcomm", "vm", false);
    vesk.removeTopic("virtualcomm");
}

void makeAndRemoveTopics(vesk::Vesk& vesk) {
    for (int i = 0; i < 100; ++i) {
        vesk.createTopic("virtualcomm", false);
        vesk.removeTopic("virtualcomm");
    }
}

}  // namespace

int main(int argc, char** argv) {
    size_t const requests = requestsFrom(argc, argv);
    auto* const vesk = vesk::Vesk::getInstance();
    android::sp<vesk::testkit::RecordingCallback> const host = new vesk::testkit::RecordingCallback;
    vesk::testkit::ShiftedClock clock;
    FarPeer peer;
    std::atomic<size_t> written{0};
    std::atomic<bool> isBurst{false};
    host->onSend([&](auto const& bytes) {
        while (isBurst)
            std::this_thread::yield();
        auto const sent = FarPeer::decode(bytes);
        if (!FarPeer::isAck(sent)) peer.acknowledge(sent.serialNumber);
        ++written;
        host->clear();
    });
    vesk->init(host);
    vesk->createTopic("test", false);
    int const id = vesk->getSessionManager()->createSession(1, 2, "test", "test", false);
    auto const session = vesk->getSessionManager()->getSession(static_cast<uint16_t>(id));
    host->onReceive([&](auto const& delivery) {
        auto const reply = vesk::VeskFrame::obtainFrame(true);
        reply->data = delivery.frame->data;
        session->send(false, reply, 1);
        host->clear();
    });
    keepRemovedTopic(*vesk);
    auto const start = std::chrono::steady_clock::now();
    size_t blocks = 0, bytes = 0;
    std::ptrdiff_t moreBlocks = 0, moreBytes = 0;
    for (size_t n = 1; n <= requests; ++n) {
        while (vesk->getQueue()->size() > 900)
            std::this_thread::yield();
        peer.send(FarPeer::Frame{2, 1, 2, 0, 0, 0, {1, 2, 3, 4}});
        isBurst = n == requests / 2;
        for (size_t i = 0; isBurst && i < BURST; ++i)
            session->send(false, vesk::VeskFrame::obtainFrame(true), 1);
        isBurst = false;
        if (n != requests / 100 && n != requests) continue;
        std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
        clock.advance(3000);
        clock.advance(3000);
        makeAndRemoveTopics(*vesk);
        std::printf("after %zu requests and %zu writes: %zu blocks, %zu bytes; %.0f requests/s\n",
                    n, written.load(), CountedHeap::blocks.load(), CountedHeap::bytes.load(),
                    double(n) / seconds.count());
        moreBlocks = static_cast<std::ptrdiff_t>(CountedHeap::blocks - blocks);
        moreBytes = static_cast<std::ptrdiff_t>(CountedHeap::bytes - bytes);
        blocks = CountedHeap::blocks;
        bytes = CountedHeap::bytes;
    }
    vesk->init(new vesk::testkit::RecordingCallback);
    if (moreBlocks == 0 && moreBytes == 0) return 0;
    std::fprintf(stderr, "vesk_load: the heap has %+td blocks and %+td bytes since a hundredth\n",
                 moreBlocks, moreBytes);
    return 1;
}
