// Answers requests as fast as they can be handed over, each acknowledged at once, and prints the
// rate and how much of the heap is in use, at rest, after a hundredth of them and after all:
// vesk_load [REQUESTS]. The exit status is 0 where both uses are the same.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include <vesk/Vesk.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

namespace {

using vesk::testkit::FarPeer;

std::atomic<size_t> gBlocks{0}, gBytes{0};
constexpr size_t HEAD = alignof(std::max_align_t);

}  // namespace

void* operator new(size_t size) {
    auto* const block = static_cast<char*>(std::malloc(size + HEAD));
    if (!block) throw std::bad_alloc();
    *new (block) size_t = size;
    ++gBlocks;
    gBytes += size;
    return block + HEAD;
}

void operator delete(void* memory) noexcept {
    if (!memory) return;
    void* const block = static_cast<char*>(memory) - HEAD;
    --gBlocks;
    gBytes -= *static_cast<size_t*>(block);
    std::free(block);
}

void operator delete(void* memory, size_t) noexcept {
    operator delete(memory);
}

int main(int argc, char** argv) {
    size_t const requests = argc > 1 ? std::stoul(argv[1]) : 1000000;
    auto* const vesk = vesk::Vesk::getInstance();
    android::sp<vesk::testkit::RecordingCallback> const host = new vesk::testkit::RecordingCallback;
    vesk::testkit::ShiftedClock clock;
    FarPeer peer;
    std::atomic<size_t> written{0};
    host->onSend([&](auto const& bytes) {
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
    auto const start = std::chrono::steady_clock::now();
    size_t blocks = 0, bytes = 0;
    bool same = false;
    for (size_t n = 1; n <= requests; ++n) {
        while (vesk->getQueue()->size() > 900)
            std::this_thread::yield();
        peer.send(FarPeer::Frame{2, 1, 2, 0, 0, 0, {1, 2, 3, 4}});
        if (n != requests / 100 && n != requests) continue;
        std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
        clock.advance(3000);
        clock.advance(3000);
        std::printf("after %zu requests and %zu writes: %zu blocks, %zu bytes; %.0f requests/s\n",
                    n, written.load(), gBlocks.load(), gBytes.load(), double(n) / seconds.count());
        same = blocks == gBlocks && bytes == gBytes;
        blocks = gBlocks;
        bytes = gBytes;
    }
    vesk->init(new vesk::testkit::RecordingCallback);
    return same ? 0 : 1;
}
