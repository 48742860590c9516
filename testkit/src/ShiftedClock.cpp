#include <vesk/testkit/ShiftedClock.h>

#include <atomic>
#include <stdexcept>
#include <utility>

#include <quillex/SystemClock.h>
#include <vesk/Vesk.h>

namespace vesk::testkit {

namespace {

std::atomic<uint64_t> gNow{0};
std::atomic<bool> gTaken{false};

uint64_t shiftedMillis() {
    return gNow;
}

}  // namespace

ShiftedClock::ShiftedClock(std::shared_ptr<VeskQueue> queue, uint64_t start,
                           std::chrono::milliseconds deadline)
    : mQueue(queue ? std::move(queue) : Vesk::getInstance()->getQueue()), mDeadline(deadline) {
    if (gTaken.exchange(true)) {
        throw std::logic_error("a ShiftedClock lives already; there may be one at a time");
    }
    gNow = start;
    quillex::SystemClock::setSource(&shiftedMillis);
}

ShiftedClock::~ShiftedClock() {
    quillex::SystemClock::setSource(nullptr);
    gTaken = false;
}

uint64_t ShiftedClock::now() const {
    return gNow;
}

void ShiftedClock::advance(uint64_t millis) {
    gNow += millis;
    settle();
}

void ShiftedClock::settle() {
    mQueue->wake();
    if (!eventually([this] { return mQueue->idle(); }, mDeadline)) {
        throw std::runtime_error(
                "the queue's looper did not come to rest: a sendToChannel() that blocks, or "
                "traffic that never ends; let both end before the clock is moved");
    }
}

void ShiftedClock::jump(int64_t millis) {
    gNow += static_cast<uint64_t>(millis);
}

}  // namespace vesk::testkit
