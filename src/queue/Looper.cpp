// The looper thread's life, and one pass of it.

#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>

#include <quillex/SystemClock.h>

#include <chrono>

#include "core/DebugLog.h"
#include "queue/LooperThread.h"
#include "queue/QueueRules.h"

namespace vesk {

using quillex::SystemClock;

thread_local VeskQueue const* gLoopingQueue = nullptr;

VeskQueue::VeskQueue() : mTimeout(2000), mMaxHistory(1000), mMaxQueueSize(1000), mRunning(true) {
    mThread = std::thread([this] { looper(); });
}

VeskQueue::~VeskQueue() {
    stop();
    if (mThread.joinable()) {
        // The last owner let go inside sendToChannel(), on the looper itself, which cannot wait for
        // its own end. It returns into a queue that is gone and must not touch it.
        mThread.detach();
        gLoopingQueue = nullptr;
    }
    cleanup();
}

void VeskQueue::stop() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mRunning = false;
        wakeLooper();
        if (mThread.get_id() != std::this_thread::get_id()) {
            thread.swap(mThread);
        }
    }
    if (thread.joinable()) {
        thread.join();
    }
}

void VeskQueue::looper() {
    gLoopingQueue = this;
    while (runPass()) {
    }
}

bool VeskQueue::runPass() {
    unsigned long long nextTime = IDLE_WAIT_MS;
    uint64_t const now = SystemClock::uptimeMillis();
    {
        PacketList expired;  // released after the lock
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mRunning) return false;
        mWakeAsked = false;
        mHistoryWasFull = false;
        sendOwedAcks(now, nextTime);
        expired = expireHistory(now, nextTime);
    }
    sendPacketToNetwork(nextTime);
    if (gLoopingQueue != this) {
        return false;
    }
    sleep(now, nextTime);
    return true;
}

void VeskQueue::sendOwedAcks(uint64_t now, unsigned long long& nextTime) {
    uint64_t const age = elapsed(now, mFirstAckTime);
    if (mAckList.size() >= ACK_BATCH_COUNT || age >= ACK_BATCH_AGE_MS) {
        ackToPeer();
    } else if (!mAckList.empty()) {
        lowerTo(nextTime, ACK_BATCH_AGE_MS - age);
    }
}

VeskQueue::PacketList VeskQueue::expireHistory(uint64_t now, unsigned long long& nextTime) {
    PacketList expired;
    for (auto next = mWaitAckList.begin(); next != mWaitAckList.end();) {
        auto const entry = next++;
        uint64_t const age = elapsed(now, (*entry)->mSendTime);
        if (age < mTimeout) {
            lowerTo(nextTime, mTimeout - age);
            continue;
        }
        debugLog(QUEUE_TAG, "send timeout:", (*entry)->mFrame->msgId);
        expired.splice(expired.end(), mWaitAckList, entry);
        mFeedback.updateDelay(TIMEOUT_DELAY_MS);
    }
    return expired;
}

void VeskQueue::sleep(uint64_t passStart, unsigned long long nextTime) {
    std::lock_guard<std::mutex> guard(mMutex);
    // The pass has taken time itself, in the host's callback above all.
    uint64_t const spent = elapsed(SystemClock::uptimeMillis(), passStart);
    if (!mRunning || mWakeAsked || spent >= nextTime) {
        return;
    }
    std::unique_lock<std::mutex> lock(mMutex, std::adopt_lock);
    mAsleep = true;
    mCond.wait_for(lock, std::chrono::milliseconds(nextTime - spent));
    mAsleep = false;
    lock.release();  // guard unlocks
}

void VeskQueue::wakeLooper() {
    mWakeAsked = true;
    mCond.notify_one();
}

void VeskQueue::wakeStalled() {
    if (mHistoryWasFull) {
        mHistoryWasFull = false;
        wakeLooper();
    }
}

void VeskQueue::wake() {
    std::lock_guard<std::mutex> lock(mMutex);
    wakeLooper();
}

bool VeskQueue::idle() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAsleep && !mWakeAsked;
}

void VeskQueue::cleanup() {
    debugLog(QUEUE_TAG, "cleanup.");
    PacketList dropped;  // released after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    while (mHead != nullptr) {
        dropped.push_back(mHead);
        mHead = dropped.back()->mNext;
        dropped.back()->mPrev.clear();
        dropped.back()->mNext.clear();
    }
    mPending = 0;
    dropped.splice(dropped.end(), mWaitAckList);
    dropped.splice(dropped.end(), mDropped);
    mAckList.clear();
    mHistoryWasFull = false;
    mFeedback.cleanup();
}

}  // namespace vesk
