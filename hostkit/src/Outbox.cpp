#include <vesk/hostkit/Outbox.h>

#include <algorithm>
#include <utility>

namespace vesk::hostkit {

using Guard = std::lock_guard<std::mutex>;

namespace {
// Beyond these a write costs little beside what it carries.
constexpr size_t MAX_FRAMES_LEFT = 64;
constexpr size_t MAX_BYTES_LEFT = size_t{64} * 1024;
// A buffer of this size is kept, and one that is not much larger than what is to follow.
constexpr size_t MAX_KEPT = size_t{256} * 1024;
constexpr size_t MUCH = 4;

void giveBack(Outbox::Bytes& empty, size_t next) {
    if (empty.capacity() > std::max(MAX_KEPT, MUCH * next)) Outbox::Bytes().swap(empty);
}

}  // namespace

Outbox::Outbox(std::function<void()> wake) : mWake(std::move(wake)) {}

void Outbox::put(Bytes bytes) {
    bool wakes = false;
    {
        Guard const guard(mMutex);
        wakes = accept(bytes);
    }
    if (wakes && mWake) mWake();
}

/** Returns whether the writer has to be told: one that has a batch comes back by itself. */
bool Outbox::accept(Bytes& bytes) {
    if (!mOpen) {
        mLost += bytes.size();
        return false;
    }
    ++mFramesWaiting;
    mEnoughWaits =
            mFramesWaiting >= MAX_FRAMES_LEFT || mWaiting.size() + bytes.size() >= MAX_BYTES_LEFT;
    bool const wakes = mWaiting.empty() && mBatch.empty() && !bytes.empty();
    if (mWaiting.empty() && bytes.size() > mWaiting.capacity()) {
        mWaiting.swap(bytes);
    } else {
        mWaiting.insert(mWaiting.end(), bytes.begin(), bytes.end());
    }
    return wakes;
}

bool Outbox::moreComes(VeskQueue const& queue) const {
    return queue.size() > 1 && !mEnoughWaits;  // the one that is being sent counts
}

Outbox::Batch Outbox::take() {
    Guard const guard(mMutex);
    if (mBatchIsLost) return {nullptr, 0};
    if (mBatch.empty()) {
        mBatch.swap(mWaiting);
        mFramesWaiting = 0;
        mEnoughWaits = false;
    }
    return {mBatch.data() + mWritten, unwritten()};
}

void Outbox::written(size_t size) {
    Guard const guard(mMutex);
    mWritten += size;
    if (mBatchIsLost || unwritten() == 0) endBatch();
}

void Outbox::failed() {
    Guard const guard(mMutex);
    if (!mBatchIsLost) mLost += unwritten();
    endBatch();
}

size_t Outbox::close() {
    Guard const guard(mMutex);
    size_t const lost = mWaiting.size() + (mBatchIsLost ? 0 : unwritten());
    mWaiting.clear();
    giveBack(mWaiting, 0);
    mFramesWaiting = 0;
    mEnoughWaits = false;
    mBatchIsLost = !mBatch.empty();
    mOpen = false;
    mLost += lost;
    return lost;
}

void Outbox::open() {
    Guard const guard(mMutex);
    mOpen = true;
}

bool Outbox::isOpen() const {
    Guard const guard(mMutex);
    return mOpen;
}

size_t Outbox::backlog() const {
    Guard const guard(mMutex);
    return mWaiting.size() + (mBatchIsLost ? 0 : unwritten());
}

size_t Outbox::memory() const {
    Guard const guard(mMutex);
    return mWaiting.capacity() + mBatch.capacity();
}

uint64_t Outbox::lostBytes() const {
    Guard const guard(mMutex);
    return mLost;
}

void Outbox::endBatch() {
    mBatch.clear();
    giveBack(mBatch, mWaiting.size());
    if (mWaiting.empty()) giveBack(mWaiting, 0);
    mWritten = 0;
    mBatchIsLost = false;
}

}  // namespace vesk::hostkit
