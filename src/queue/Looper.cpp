// The looper thread's life, and one pass of it.

#include <vesk/VeskFrame.h>

#include <quillex/SystemClock.h>

#include <unistd.h>

#include <chrono>
#include <utility>

#include "core/DebugLog.h"
#include "queue/QueueRules.h"
#include "queue/QueueState.h"

namespace vesk {

using quillex::SystemClock;

VeskQueue::State::State() : mProcess(getpid()) {}

VeskQueue::State::~State() = default;

void VeskQueue::State::start(std::shared_ptr<State> const& self) {
    std::lock_guard<std::mutex> lock(self->mMutex);
    self->mSpare.reserve(SPARE_PACKETS);
    self->forgetOwedAcks();
    self->mThread = std::thread([self] { self->looper(); });
    self->mLooper = self->mThread.get_id();
}

bool VeskQueue::State::isForked() const {
    return getpid() != mProcess;
}

void VeskQueue::State::stop() {
    if (isForked()) {
        return;  // there is no looper to wait for, and its lock may be held for ever
    }
    std::thread thread;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        mRunning = false;
        if (wakeLooper()) mCond.notify_one();
        if (mLooper == std::this_thread::get_id()) return;
        // Every caller waits, not only the one that joins the thread.
        std::unique_lock<std::mutex> lock(mMutex, std::adopt_lock);
        while (!mLooperEnded)
            mEnded.wait(lock);
        lock.release();  // guard unlocks
        thread.swap(mThread);
    }
    if (thread.joinable()) {
        thread.join();
    }
}

void VeskQueue::State::detach() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mThread.joinable()) {
        mThread.detach();
    }
}

void VeskQueue::State::looper() {
    Released released;  // is used again in each pass
    while (runPass(released)) {
    }
    std::lock_guard<std::mutex> lock(mMutex);
    mLooperEnded = true;
    mEnded.notify_all();
}

bool VeskQueue::State::runPass(Released& released) {
    Pass pass(released);
    {
        Packets expired;  // released after the lock
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mRunning) return false;
        mWakeAsked = false;
        mHistoryWasFull = false;
        if (acksAreDue(pass.start)) ackToPeer();
        expired = expireHistory(pass);
    }
    sendDuePackets(pass);
    sleep(pass);
    return true;
}

bool VeskQueue::State::acksAreDue(uint64_t now) const {
    return mAckList.size() >= ACK_BATCH_COUNT ||
           (!mAckList.empty() && elapsed(now, mFirstAckTime) >= ACK_BATCH_AGE_MS);
}

VeskQueue::State::Packets VeskQueue::State::expireHistory(Pass& pass) {
    Packets expired;
    // Not before the oldest may have expired: the walk would find nothing.
    if (mWaitAckList.size() != 0 && elapsed(pass.start, mWaitAckList.earliestSend()) >= mTimeout) {
        expired = mWaitAckList.takeExpired(pass.start, mTimeout);
    }
    for (Packet const& packet : expired) {
        debugLog(QUEUE_TAG, "send timeout:", packet->mFrame->msgId);
        mFeedback.updateDelay(TIMEOUT_DELAY_MS);
        ++mTimedOut;
    }
    if (mWaitAckList.size() != 0) {
        pass.lowerWait(mTimeout - elapsed(pass.start, mWaitAckList.earliestSend()));
    }
    return expired;
}

void VeskQueue::State::sleep(Pass& pass) {
    // The guard is what clang's analysis can follow; the condition variable wants a unique_lock. So
    // that adopts the guard's lock for the wait and gives it back by release().
    std::lock_guard<std::mutex> guard(mMutex);
    uint64_t const now = SystemClock::uptimeMillis();
    if (!mAckList.empty()) {
        pass.lowerWait(acksAreDue(now) ? 0 : elapsed(mFirstAckTime + ACK_BATCH_AGE_MS, pass.start));
    }
    // What is sent is answered: a looper that looks again by then need not be told of that.
    if (pass.hasSent) pass.lowerWait(ACK_BATCH_AGE_MS);
    // The pass has taken time itself, in the host's callback above all.
    uint64_t const spent = elapsed(now, pass.start);
    if (!mRunning || mWakeAsked || spent >= pass.wait) {
        return;
    }
    std::unique_lock<std::mutex> lock(mMutex, std::adopt_lock);
    mSleepsUntil = now + (pass.wait - spent);
    mAsleep = true;
    mCond.wait_for(lock, std::chrono::milliseconds(pass.wait - spent));
    mAsleep = false;
    lock.release();
}

// A looper that is awake looks at mWakeAsked before it sleeps: to notify it would be a system call
// for nothing. So it would be where it has been notified and has not come to run yet.
bool VeskQueue::State::wakeLooper() {
    mWakeAsked = true;
    return std::exchange(mAsleep, false);
}

// A full history has ended the last pass, and nothing falls due that would begin another. Whoever
// makes room in it, or takes away the packet that stood in front of the others, does.
void VeskQueue::State::wakeStalled() {
    if (mHistoryWasFull) {
        mHistoryWasFull = false;
        if (wakeLooper()) mCond.notify_one();
    }
}

void VeskQueue::State::cleanup() {
    debugLog(QUEUE_TAG, "cleanup.");
    Packets pending, awaiting, dropped;  // these and the tail are released after the lock
    Packet tail;
    std::lock_guard<std::mutex> lock(mMutex);
    pending.reserve(static_cast<size_t>(mPending.load()));
    tail = mTail;
    while (mHead != nullptr) {
        pending.push_back(unlink(mHead.get()));
    }
    mTail = mRunning ? tail : nullptr;  // a stopped queue has no admission that would replace it
    awaiting = mWaitAckList.takeAll();
    dropped.swap(mDropped);
    forgetOwedAcks();
    mHistoryWasFull = false;
    mFeedback.cleanup();
}

}  // namespace vesk
