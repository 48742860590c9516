#include <pthread.h>

#include <atomic>
#include <ctime>
#include <mutex>
#include <utility>

#include <quillex/SystemClock.h>

#include "Simulation.h"

namespace {

using quillex::SystemClock;

// The looper holds the queue's mutex when it begins and when it ends its wait.
pthread_cond_t* gSleeper = nullptr;  // guarded by the queue's mutex
uint64_t gUntil = 0;                 // guarded by the queue's mutex
std::atomic<bool> gTakenOver{false};

}  // namespace

// In place of the C library's, for everything in this process: of all waits only the looper's has
// an end, and it is reached when the simulated clock says so.
extern "C" __attribute__((visibility("default"))) int pthread_cond_clockwait(
        pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* end) {
    timespec begin{};
    clock_gettime(clock, &begin);
    auto const left =
            (int64_t{end->tv_sec} - begin.tv_sec) * 1000000000 + end->tv_nsec - begin.tv_nsec;
    // Rounded up: it began a little before it got here.
    gUntil = SystemClock::uptimeMillis() + static_cast<uint64_t>(left + 999999) / 1000000;
    gSleeper = condition;
    gTakenOver = true;
    int const result = pthread_cond_wait(condition, mutex);
    gSleeper = nullptr;
    return result;
}

bool vesk::simulation::asleep(VeskQueue& queue, bool first) {
    if (!gTakenOver && first) queue.wake();
    if (!gTakenOver) return queue.idle();
    {
        std::lock_guard<std::mutex> const guard(queue.mutex());
        if (!gSleeper) return false;
        if (gUntil <= SystemClock::uptimeMillis()) {
            pthread_cond_broadcast(std::exchange(gSleeper, nullptr));
            return false;
        }
    }
    return queue.idle();
}
