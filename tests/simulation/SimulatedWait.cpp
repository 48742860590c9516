#include <pthread.h>

#include <atomic>
#include <ctime>
#include <mutex>
#include <utility>

#include <quillex/SystemClock.h>

#include "QueueModel.h"
#include "Simulation.h"

namespace {

// The looper holds the queue's mutex when it begins and when it ends its wait.
pthread_cond_t* gSleeper = nullptr;  // guarded by the queue's mutex
uint64_t gUntil = 0;                 // guarded by the queue's mutex
uint64_t gWaits = 0;                 // guarded by the queue's mutex
int64_t gLength = 0;                 // ms of the wait; guarded by the queue's mutex
uint64_t gIdleWait = 0;              // the last that was over with nothing to do
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
    gUntil = quillex::SystemClock::uptimeMillis() + static_cast<uint64_t>(left + 999999) / 1000000;
    gLength = left / 1000000;
    gSleeper = condition;
    ++gWaits;
    gTakenOver = true;
    int const result = pthread_cond_wait(condition, mutex);
    gSleeper = nullptr;
    return result;
}

bool vesk::simulation::asleep(VeskQueue& queue, bool first) {
    if (!gTakenOver && first) queue.wake();
    if (!gTakenOver) return queue.idle();
    bool const isIdle = size_t(queue.size()) + queue.awaitingAck() + queue.owedAcks() == 0;
    std::unique_lock<std::mutex> lock(queue.mutex());
    bool const sleeps = gSleeper != nullptr;
    bool const over = sleeps && gUntil <= quillex::SystemClock::uptimeMillis();
    if (over && isIdle) {
        // A wait of weeks may end, too.
        require(gWaits != gIdleWait + 1 || gLength > INT32_MAX / 2, "it woke twice for nothing");
        gIdleWait = gWaits;
    }
    if (over) pthread_cond_broadcast(std::exchange(gSleeper, nullptr));
    lock.unlock();
    return sleeps && !over && queue.idle();
}
