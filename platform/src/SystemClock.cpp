#include <quillex/SystemClock.h>

#include <atomic>
#include <chrono>

namespace quillex {

namespace {
std::atomic<SystemClock::Source> gSource{nullptr};
}

uint64_t SystemClock::uptimeMillis() {
    Source const source = gSource.load(std::memory_order_acquire);
    return source ? source() : machineMillis();
}

void SystemClock::setSource(Source source) {
    gSource.store(source, std::memory_order_release);
}

uint64_t SystemClock::machineMillis() {
    using std::chrono::duration_cast;
    auto const uptime = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(duration_cast<std::chrono::milliseconds>(uptime).count());
}

}  // namespace quillex
