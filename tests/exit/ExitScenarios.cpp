// Ends its process in the way that is named on the command line. The exit status is the result: 0
// from a process that ended cleanly, under a leak checker too.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include <vesk/Vesk.h>
#include <vesk/testkit/Await.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>

namespace vesk {
namespace {

using testkit::eventually;
using testkit::FarPeer;
using testkit::RecordingCallback;

std::atomic<bool> gExiting{false};

android::sp<RecordingCallback> host() {
    android::sp<RecordingCallback> const callback = new RecordingCallback;
    Vesk::getInstance()->init(callback);
    return callback;
}

void enqueue(int priority) {
    Vesk::getInstance()->getQueue()->enqueue(priority, true, VeskFrame::obtainFrame(true));
}

/** Leaves something in every place that the end has to clear. */
void fill() {
    Vesk* const vesk = Vesk::getInstance();
    vesk->createTopic("test", false);
    vesk->createTopic("virtualcomm", false);
    for (int const type : {VeskSessionManager::CONSUMER, VeskSessionManager::PROVIDER}) {
        vesk->getSessionManager()->createSession(1, type, "test", "test", false);
        vesk->getSessionManager()->createSession(1, type, "virtualcomm", "cell0", false);
    }
    vesk->removeTopic("virtualcomm");  // its sessions keep it
    FarPeer().send(FarPeer::Frame{2, 1, 2, 0, 1, 1, {}});
    for (int const priority : {2, 2, 1})
        enqueue(priority);
}

void endIdle() {
    fill();
    eventually([] {
        auto const queue = Vesk::getInstance()->getQueue();
        return queue->awaitingAck() == 1 && queue->idle();
    });
}

void endMidSend() {
    auto const callback = host();
    callback->onSend([](auto const&) {
        eventually([] { return gExiting.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // ends after the exit began
        enqueue(1);
    });
    // Registered after the instance was made, so it runs before the instance ends.
    std::atexit([] { gExiting = true; });
    fill();
    callback->waitForSent(1);
}

// The first send exits; from what causes it on, this thread calls the library no more.
void exitInSend(std::function<void()> const& cause) {
    host()->onSend([](auto const&) { std::exit(0); });
    cause();
    for (;;)
        pause();
}

std::map<std::string, std::function<void()>> const SCENARIOS{
        {"unused", [] { VeskFrame::obtainFrame(true); }},
        {"no-callback", endIdle},
        {"idle", [] { host(), endIdle(); }},
        {"mid-send", endMidSend},
        {"exit-in-send", [] { exitInSend(fill); }},
        {"exit-in-send-bare", [] { exitInSend([] { enqueue(1); }); }},
        {"exit-in-receive",
         [] {
             host()->onReceive([](auto const&) { std::exit(0); });
             fill();
             std::abort();
         }},
};

}  // namespace
}  // namespace vesk

int main(int argc, char** argv) {
    auto const scenario = vesk::SCENARIOS.find(argc == 2 ? argv[1] : "");
    if (scenario == vesk::SCENARIOS.end()) {
        std::fprintf(stderr, "usage: vesk_exit SCENARIO, one of those in tests/CMakeLists.txt\n");
        return 2;
    }
    scenario->second();
    return 0;
}
