#include <vesk/hostkit_asio/Tap.h>

#include <utility>

#include "CallGate.h"
#include "WallClock.h"

namespace vesk::hostkit {

Tap::Tap() : mGate(std::make_unique<CallGate>()) {}

Tap::~Tap() = default;

void Tap::begin(std::function<void()> onCopies) {
    mGate->close();
    mOnCopies = std::move(onCopies);
    mGate->open();
    mOn = true;
}

void Tap::end() {
    mOn = false;
    mGate->close();
    mOnCopies = nullptr;
    std::lock_guard<std::mutex> const lock(mMutex);
    mBatch = {};
    mBytes = 0;
}

Tap::Batch Tap::take() {
    std::lock_guard<std::mutex> const lock(mMutex);
    mBytes = 0;
    return std::exchange(mBatch, {});
}

void Tap::copyIn(VeskFrame const& frame) {
    std::vector<uint8_t> bytes;
    frame.serialze(bytes);
    put({FrameText::Direction::IN, 0, std::move(bytes), 0});
}

void Tap::put(Copy copy) {
    CallGate::Call const call(*mGate);
    if (call.isLet() && add(std::move(copy))) mOnCopies();
}

bool Tap::add(Copy copy) {
    std::lock_guard<std::mutex> const lock(mMutex);
    bool const wasEmpty = mBatch.copies.empty() && mBatch.missed == 0 && mBatch.skipped == 0;
    size_t const size = sizeof(Copy) + copy.bytes.size();
    // What is behind something missed is missed too, so that the counts have their place.
    if (mBatch.missed > 0 || mBatch.skipped > 0 || mBytes + size > MAX_BYTES) {
        mBatch.missed += copy.skipped > 0 ? 0 : 1;
        mBatch.skipped += copy.skipped;
    } else {
        mBytes += size;
        // The time is taken under the lock, so that no copy is older than the one before it.
        copy.micros = microsSince1970();
        mBatch.copies.push_back(std::move(copy));
    }
    return wasEmpty;
}

}  // namespace vesk::hostkit
