#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

#include <vesk/VeskThreadAnnotations.h>

namespace vesk::hostkit {

/**
 * Lets calls through to something that will not be there for ever. The owner closes the gate before
 * that goes, and close() waits for the calls under way, so no lock need be held while they run.
 *
 * Threads: any. A call must not close the gate that has let it through: it would wait for itself.
 */
class CallGate {
public:
    /** One call: asks to be let through, and leaves at its end. */
    class Call {
    public:
        explicit Call(CallGate& gate) : mGate(gate), mIsLet(gate.enter()) {}
        ~Call() {
            if (mIsLet) mGate.leave();
        }
        Call(Call const&) = delete;
        Call& operator=(Call const&) = delete;

        bool isLet() const { return mIsLet; }

    private:
        CallGate& mGate;
        bool const mIsLet;
    };

    void open() VESK_EXCLUDES(mMutex) {
        Guard const guard(mMutex);
        mOpen = true;
    }

    /** From now on no call is let through, and none is under way when this returns. */
    void close() VESK_EXCLUDES(mMutex) {
        Guard const guard(mMutex);
        mOpen = false;
        while (mUnderWay > 0)
            mEnded.wait(mMutex);
    }

private:
    using Guard = std::lock_guard<std::mutex>;

    bool enter() VESK_EXCLUDES(mMutex) {
        Guard const guard(mMutex);
        if (mOpen) ++mUnderWay;
        return mOpen;
    }

    void leave() VESK_EXCLUDES(mMutex) {
        Guard const guard(mMutex);
        // While the lock is held: whoever closes the gate may destroy it as soon as that is given.
        if (--mUnderWay == 0) mEnded.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable_any mEnded;
    bool mOpen VESK_GUARDED_BY(mMutex) = false;
    size_t mUnderWay VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk::hostkit
