#include <pthread.h>

#include <atomic>
#include <ctime>
#include <mutex>

#include "Require.h"
#include "Simulation.h"

namespace {

struct Wait {
    pthread_cond_t* condition;
    uint64_t until;
};

std::mutex gMutex;
std::map<pthread_mutex_t*, Wait> gWaits;  // guarded by gMutex
std::atomic<bool> gTakenOver{false};

using Guard = std::lock_guard<std::mutex>;

}  // namespace

// In place of the C library's, for everything in this process: of all waits only the loopers' have
// an end, and it is reached when the simulated clock says so.
extern "C" __attribute__((visibility("default"))) int pthread_cond_clockwait(
        pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* end) {
    timespec begin{};
    clock_gettime(clock, &begin);
    auto const left =
            (int64_t{end->tv_sec} - begin.tv_sec) * 1000000000 + end->tv_nsec - begin.tv_nsec;
    {
        Guard const guard(gMutex);
        // Rounded up: it began a little before it got here.
        gWaits[mutex] = {condition,
                         vesk::simulation::now() + static_cast<uint64_t>(left + 999999) / 1000000};
        gTakenOver = true;
    }
    int const result = pthread_cond_wait(condition, mutex);
    Guard const guard(gMutex);
    gWaits.erase(mutex);
    return result;
}

namespace vesk::simulation {

bool asleep(VeskQueue& queue, bool first) {
    if (!gTakenOver && first) queue.wake();
    Wait over{};
    {
        Guard const guard(gMutex);
        auto const wait = gWaits.find(queue.mutex().native_handle());
        if (wait == gWaits.end()) return !gTakenOver && queue.idle();
        if (wait->second.until <= now()) {
            over = wait->second;
            gWaits.erase(wait);
        }
    }
    if (!over.condition) return queue.idle();
    Guard const guard(queue.mutex());
    pthread_cond_broadcast(over.condition);
    return false;
}

}  // namespace vesk::simulation
