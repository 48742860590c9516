#include "SteadyTime.h"

#include <time.h>

#include <atomic>

#include <asio/steady_timer.hpp>

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int64_t> sShift{0};
std::atomic<int64_t> sStopped{0};  // what it shows then; 0 while it goes

int64_t systemNanos() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

}  // namespace

// In the place of the standard library's own.
Clock::time_point std::chrono::steady_clock::now() noexcept {
    int64_t const stopped = sStopped;
    return Clock::time_point(std::chrono::nanoseconds(stopped ? stopped : systemNanos() + sShift));
}

namespace vesk::e2e {

SteadyTime::SteadyTime(asio::io_context& io) : mIo(io) {
    sStopped = Clock::now().time_since_epoch().count();
}

SteadyTime::~SteadyTime() {
    sShift = sStopped - systemNanos();
    sStopped = 0;
}

void SteadyTime::advance(int millis) {
    sStopped += millis * int64_t{1000000};
    // Asio sleeps by the system's clock; a timer before all others makes it look at this one.
    asio::steady_timer look(mIo, Clock::time_point());
    bool looked = false;
    look.async_wait([&](asio::error_code const&) { looked = true; });
    while (!looked) {
        mIo.restart();
        mIo.run_one();
    }
    settle();
}

void SteadyTime::settle() {
    mIo.restart();
    while (mIo.poll() > 0)
        continue;
}

}  // namespace vesk::e2e
