#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/VeskQueue.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk::hostkit {

/**
 * What is on its way out: collects the bytes that the library hands to the host, and gives all that
 * is waiting to the host's writer as one write. While one write runs, the next one gathers; a frame
 * that comes alone is not held back.
 *
 * Order of calls, by one writer: (take() (written()... | failed()))..., each time it is woken and
 * until take() gives nothing. A host whose channel comes and goes calls close() and open().
 *
 * Threads:   put(), open(), close(), isOpen(), backlog() and lostBytes() from any thread; take(),
 *            written() and failed() from the one writer, which may be any thread at a time.
 * Locks:     none is held while `wake` runs.
 * Ownership: a batch is this object's, and stays as it is until the writer has reported on it.
 * Memory:    nothing is refused here: whoever feeds the library looks at SendGate before. The two
 *            buffers keep 256 KiB each, and what a burst has taken beyond that is given back when
 *            it has left.
 */
class VESK_EXPORT Outbox {
public:
    using Bytes = std::vector<uint8_t>;

    /** A part of the stream; `size` is 0 where there is nothing to write. */
    struct Batch {
        uint8_t const* data;
        size_t size;
    };

    /**
     * @param wake runs on the thread that called put(), mostly the library's looper, when there is
     *             something to take again: nothing was waiting, and no batch is with the writer. It
     *             should do no more than wake the writer. May be empty.
     */
    explicit Outbox(std::function<void()> wake);

    /** Appends bytes, as VeskCallback::sendToChannel() brings them. While closed they are lost. */
    void put(Bytes bytes) VESK_EXCLUDES(mMutex);

    /**
     * For a host that writes in VeskCallback::sendToChannel() itself, on the library's looper, and
     * needs no other thread for it: whether to leave what was put there to the call for the next
     * frame, which follows at once. Where this says no, the host writes all that is waiting: a
     * frame behind which none is pending is written in its own call. No more than 64 frames, or 64
     * KiB, are left waiting, so that with 1000 awaiting acknowledgement most are with the peer.
     *
     * REQUIRES: all that is pending is of priority 1, as what sessions send is; another packet may
     *           be held back for 2000 ms, and what waits here with it. A host that takes pending
     *           packets out of the queue writes what waits here itself.
     */
    bool moreComes(VeskQueue const& queue) const;

    /**
     * What is to be written now: the rest of the batch that is with the writer, or else all that is
     * waiting. The bytes stay where they are until written() or failed().
     */
    Batch take() VESK_EXCLUDES(mMutex);

    /**
     * The first `size` bytes of the batch have left.
     *
     * REQUIRES: `size` is not more than take() gave last.
     */
    void written(size_t size) VESK_EXCLUDES(mMutex);

    /** The rest of the batch did not leave: it is lost. */
    void failed() VESK_EXCLUDES(mMutex);

    /**
     * The channel has gone: whatever has not left is lost, and so is what comes while it is away. A
     * batch that is with the writer stays readable until the writer reports, however late, and
     * take() gives nothing before that.
     *
     * @return the number of bytes that are lost by this.
     */
    size_t close() VESK_EXCLUDES(mMutex);

    /** The channel is there again; a new outbox is open. */
    void open() VESK_EXCLUDES(mMutex);

    bool isOpen() const VESK_EXCLUDES(mMutex);

    /** Bytes that are waiting or with the writer. */
    size_t backlog() const VESK_EXCLUDES(mMutex);

    /** Bytes that the buffers take, whether or not anything is in them. */
    size_t memory() const VESK_EXCLUDES(mMutex);

    /**
     * Bytes that were put and had not been reported as written when they were lost, since
     * construction. Of a batch that was with the writer when the channel went, some may have left.
     */
    uint64_t lostBytes() const VESK_EXCLUDES(mMutex);

private:
    bool accept(Bytes& bytes) VESK_REQUIRES(mMutex);
    size_t unwritten() const VESK_REQUIRES(mMutex) { return mBatch.size() - mWritten; }
    void endBatch() VESK_REQUIRES(mMutex);

    std::function<void()> const mWake;
    mutable std::mutex mMutex;
    Bytes mWaiting VESK_GUARDED_BY(mMutex);
    Bytes mBatch VESK_GUARDED_BY(mMutex);  // with the writer, where not empty
    size_t mWritten VESK_GUARDED_BY(mMutex) = 0;
    bool mBatchIsLost VESK_GUARDED_BY(mMutex) = false;  // closed before the writer reported
    size_t mFramesWaiting VESK_GUARDED_BY(mMutex) = 0;
    std::atomic<bool> mEnoughWaits{false};
    bool mOpen VESK_GUARDED_BY(mMutex) = true;
    uint64_t mLost VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk::hostkit
