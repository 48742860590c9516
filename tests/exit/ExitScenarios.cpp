// Ends its process in the way that is named on the command line. The exit status is the result: 0
// from a process that ended cleanly, under a leak checker too.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <quillex/Log.h>
#include <vesk/Vesk.h>
#include <vesk/testkit/Await.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>

namespace vesk {
namespace {

using namespace testkit;

std::atomic<bool> gExiting{false};

android::sp<RecordingCallback> host() {
    android::sp<RecordingCallback> const callback = new RecordingCallback;
    Vesk::getInstance()->init(callback);
    return callback;
}

void enqueue(int priority) {
    Vesk::getInstance()->getQueue()->enqueue(priority, true, VeskFrame::obtainFrame(true));
}

std::shared_ptr<VeskFrame> request() {
    auto frame = VeskFrame::obtainFrame(true);
    frame->msgType = 2;
    return frame;
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
    auto const queue = Vesk::getInstance()->getQueue();
    eventually([&] { return queue->awaitingAck() == 1 && queue->idle(); });
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

void exitInReceive() {
    host()->onReceive([](auto const&) { std::exit(0); });
    fill();
    std::abort();
}

void callAllTheWhile() {
    host();
    std::thread([] {
        for (;;)
            fill();
    }).detach();
}

/** Uses every part of the library, and ends the process where anything of it works. */
void expectRefusal() {
    Vesk* const vesk = Vesk::getInstance();
    auto* const sessions = vesk->getSessionManager();
    int const pending = vesk->getQueue()->size();
    fill();
    if (vesk->createTopic("test", false) != 0 || vesk->hasTopic("test") || vesk->getTopic(2) ||
        sessions->createSession(1, 2, "test", "test", false) != -4 || sessions->getSession(1) ||
        sessions->getSession(3) || sessions->makeSessionId() != -1 ||
        sessions->removeSession(1) != 0 || vesk->getQueue()->size() != pending)
        _exit(3);
}

int gReleased = 0;

/** Must be released as the nth, and calls the library then. */
template <typename T, int NTH>
struct Late : T {
    using T::T;
    ~Late() {  // NOLINT(modernize-use-override): the base may have no virtual one
        expectRefusal();
        if constexpr (std::is_base_of_v<VeskSession, T>) this->send(true, request(), 1);
        bool const kept = NTH > 2 && host()->getStrongCount() != 1;  // a callback, after the last
        if (kept || ++gReleased != NTH) _exit(4);
    }
};

void callAfterTheEnd() {
    static Late<VeskFrame, 4> const global;  // made before the instance, and so destroyed after it
    Vesk* const vesk = Vesk::getInstance();
    vesk->init(new Late<RecordingCallback, 3>);
    vesk->getQueue()->enqueue(2, true, std::make_shared<Late<VeskFrame, 2>>());
    fill();
    auto const session = std::make_shared<Late<VeskSession, 1>>(9, false, 2, 9, 2, 1, "");
    vesk->getTopic(2)->addSession(9, true, session);
}

// Also where sessions are being made and announced while the process ends. What is registered
// before the instance is made runs after its end.
void nothingStays() {
    static std::vector<std::weak_ptr<void>> kept;
    static std::thread threads[2];
    static std::atomic<bool> making{false};
    static auto const holdUp = [] { eventually([] { return gExiting.load(); }); };
    std::atexit([] {
        gExiting = true;
        for (auto& thread : threads)
            thread.join();
        for (auto const& each : kept)
            if (!each.expired()) _exit(6);
        for (uint16_t id = 1; id < 20; ++id)
            if (Vesk::getInstance()->getSessionManager()->getSession(id)) _exit(7);
    });
    Vesk* const vesk = Vesk::getInstance();
    auto* const sessions = vesk->getSessionManager();
    for (int times = 0; times < 2; ++times) {
        vesk->removeTopic("test");
        fill();
    }
    vesk->createTopic("virtualcomm", false);
    sessions->createSession(1, VeskSessionManager::CONSUMER, "virtualcomm", "vm", false);
    auto const callback = host();
    callback->onBusinessChange([](auto const&) { holdUp(); });
    threads[0] = std::thread([=] { sessions->createSession(2, 2, "test", "test", false); });
    callback->waitUntil([&] { return !callback->businessChanges().empty(); });
    quillex::Log::setSink([](char const*, char const* message) {
        if (std::string(message).rfind("create:", 0) == 0) making = true, holdUp();
    });
    threads[1] = std::thread([=] { sessions->createSession(3, 1, "test", "test", false); });
    eventually([] { return making.load(); });
    for (uint16_t id = 1; id < 20; ++id) {
        if (auto const session = sessions->getSession(id))
            kept.insert(kept.end(), {session, session->getTopic()});
    }
}

// A thread that the child does not have may have held any lock; here this one does.
void exitInChild() {
    host();
    std::lock_guard<std::mutex> const lock(Vesk::getInstance()->getQueue()->mutex());
    int status = -1;
    if (pid_t const child = fork(); child != 0) {
        if (waitpid(child, &status, 0) != child || status != 0) _exit(5);
        return;
    }
    alarm(10);  // ends the child where it hangs
    std::exit(0);
}

std::map<std::string, std::function<void()>> const SCENARIOS{
        {"unused", [] { VeskFrame::obtainFrame(true); }},
        {"no-callback", endIdle},
        {"idle", [] { host(), endIdle(); }},
        {"mid-send", endMidSend},
        {"exit-in-send", [] { exitInSend(fill); }},
        {"exit-in-send-bare", [] { exitInSend([] { enqueue(1); }); }},
        {"exit-in-receive", exitInReceive},
        {"call-after", callAfterTheEnd},
        {"call-all-the-while", callAllTheWhile},
        {"exit-in-child", exitInChild},
        {"nothing-stays", nothingStays},
};

}  // namespace
}  // namespace vesk

int main(int argc, char** argv) {
    vesk::SCENARIOS.at(argc == 2 ? argv[1] : "none is named")();  // ends badly for any other name
    return 0;
}
