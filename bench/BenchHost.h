#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include <vesk/Vesk.h>

/**
 * A host that throws away what it gets, as fast as it can. Its channel can be held, so that what is
 * sent stays pending; and whoever has sent something can wait until it has left, without spinning.
 */
class BenchHost : public vesk::VeskCallback {
public:
    void receive(uint32_t, uint32_t, bool, std::shared_ptr<vesk::VeskFrame> const&) override {}
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

    // Mostly it only counts, for what a host does here is not what is measured.
    void sendToChannel(std::vector<uint8_t>) override {
        if (++mSent != mAwaited && !mHeld) return;
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.notify_all();
        mChanged.wait(lock, [this] { return !mHeld; });
    }

    /** Writes so far; a write that is held counts. */
    uint64_t sent() const { return mSent; }

    void waitForSent(uint64_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        mAwaited = count;
        mChanged.wait(lock, [&] { return mSent >= count; });
    }

    void hold(bool held) {
        std::lock_guard<std::mutex> const lock(mMutex);
        mHeld = held;
        mChanged.notify_all();
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::atomic<uint64_t> mSent{0};
    std::atomic<uint64_t> mAwaited{0};
    std::atomic<bool> mHeld{false};
};
