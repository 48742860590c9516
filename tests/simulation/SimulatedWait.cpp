#include "SimulatedWait.h"

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <map>
#include <mutex>
#include <utility>

#include <quillex/SystemClock.h>

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
    timespec now{};
    clock_gettime(clock, &now);
    auto const left = (int64_t{end->tv_sec} - now.tv_sec) * 1000000000 + end->tv_nsec - now.tv_nsec;
    {
        Guard const guard(gMutex);
        // The wait began a little before it got here.
        gWaits[mutex] = {condition, quillex::SystemClock::uptimeMillis() +
                                            static_cast<uint64_t>(left + 999999) / 1000000};
        gTakenOver = true;
    }
    int const result = pthread_cond_wait(condition, mutex);
    Guard const guard(gMutex);
    gWaits.erase(mutex);
    return result;
}

namespace vesk::simulation {

bool asleep(VeskQueue& queue, uint64_t round) {
    static uint64_t lastRound = 0;
    if (!gTakenOver && std::exchange(lastRound, round) != round) queue.wake();
    pthread_mutex_t* const mutex = queue.mutex().native_handle();
    Wait over{};
    {
        Guard const guard(gMutex);
        auto const wait = gWaits.find(mutex);
        if (wait == gWaits.end()) return !gTakenOver && queue.idle();
        if (wait->second.until <= quillex::SystemClock::uptimeMillis()) {
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
