#include <vesk/VeskCC.h>
#include <vesk/VeskFeedback.h>

namespace vesk {

namespace {

constexpr unsigned int SLOW_DELAY_MS = 1500;

void countSlow(std::atomic<uint32_t>& count, unsigned int delay) {
    count = delay <= SLOW_DELAY_MS ? 0 : count.load() + 1;
}

}  // namespace

void VeskFeedback::sendPackets(int n) {
    mSentPackets += static_cast<uint32_t>(n);
}

void VeskFeedback::receivePackets(int n) {
    mReceivedPackets += static_cast<uint32_t>(n);
}

void VeskFeedback::updateDelay(unsigned int delay) {
    __atomic_store_n(&mDelay, delay, __ATOMIC_RELAXED);
    countSlow(mSlowCount, delay);
}

void VeskFeedback::cleanup() {
    mSentPackets = 0;
    mReceivedPackets = 0;
    __atomic_store_n(&mDelay, 0, __ATOMIC_RELAXED);
    mSlowCount = 0;
}

void VeskCC::updateDelay(unsigned int delay) {
    countSlow(mSlowCount, delay);
}

void VeskCC::cleanup() {
    mSlowCount = 0;
}

}  // namespace vesk
