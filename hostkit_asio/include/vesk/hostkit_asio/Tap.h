#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <vesk/VeskFrame.h>
#include <vesk/VeskThreadAnnotations.h>
#include <vesk/hostkit/FrameText.h>

namespace vesk::hostkit {

class CallGate;

/**
 * Copies of the frames that a channel carries, for clients that tap it. The host calls in() and
 * out() for every frame and names the tap to its ClientServer, which does the rest. While nobody
 * taps, a call is one look at a flag.
 *
 * Memory:  up to MAX_BYTES that nobody has taken yet; a frame beyond that is missed, and counted.
 * Threads: every operation may be called from any thread, and none waits for a client; begin() and
 *          end() by one at a time.
 */
class Tap {
public:
    static constexpr size_t MAX_BYTES = size_t{1024} * 1024;

    struct Copy {
        FrameText::Direction direction{};
        uint64_t micros = 0;  // since 1970
        std::vector<uint8_t> bytes;
        uint64_t skipped = 0;  // without a frame: so many bytes have come in that belong to none
    };

    struct Batch {
        std::vector<Copy> copies;  // in the order of their times
        uint64_t missed = 0;       // frames behind the copies
        uint64_t skipped = 0;      // bytes that belong to no frame, behind the copies
    };

    Tap();
    ~Tap();
    Tap(Tap const&) = delete;
    Tap& operator=(Tap const&) = delete;

    /** A frame has been read from the channel. Call it before the library gets the frame. */
    void in(VeskFrame const& frame) {
        if (mOn.load(std::memory_order_relaxed)) copyIn(frame);
    }

    /** The bytes that sendToChannel() has brought go to the channel. Call it before they do. */
    void out(std::vector<uint8_t> const& bytes) {
        if (mOn.load(std::memory_order_relaxed)) put({FrameText::Direction::OUT, 0, bytes, 0});
    }

    /** So many bytes have come in since the last frame that belong to none. */
    void skipped(uint64_t bytes) {
        if (mOn.load(std::memory_order_relaxed)) put({FrameText::Direction::IN, 0, {}, bytes});
    }

    /**
     * From now on frames are copied.
     *
     * @param onCopies called when there is something to take() where there was nothing, on the
     *                 thread of in() or out() and without any lock. The channel waits for it, so
     *                 it should only wake whoever takes. It must not call begin() or end().
     */
    void begin(std::function<void()> onCopies) VESK_EXCLUDES(mMutex);

    /**
     * No longer; what was not taken is dropped. When this returns, `onCopies` does not run and is
     * not called any more.
     */
    void end() VESK_EXCLUDES(mMutex);

    Batch take() VESK_EXCLUDES(mMutex);

private:
    void copyIn(VeskFrame const& frame);
    void put(Copy copy);
    /** Returns whether there was nothing to take before. */
    bool add(Copy copy) VESK_EXCLUDES(mMutex);

    std::atomic<bool> mOn{false};
    std::unique_ptr<CallGate> const mGate;  // open while somebody taps
    std::function<void()> mOnCopies;        // changes only while the gate is closed
    std::mutex mMutex;
    Batch mBatch VESK_GUARDED_BY(mMutex);
    size_t mBytes VESK_GUARDED_BY(mMutex) = 0;  // of the batch
};

}  // namespace vesk::hostkit
