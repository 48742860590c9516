#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/VeskThreadAnnotations.h>
#include <vesk/hostkit/FrameReader.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "Endpoint.h"
#include "LinkSource.h"

namespace vesk::tool {

/**
 * The one byte channel of a host: opens it, opens it again with a bounded back-off when it drops,
 * cuts what arrives into frames, and writes what the library hands out.
 *
 * Threads: write() from any thread, at any time until destruction. Everything else, and every
 *          event, on the one thread that runs the io_context.
 * Loss:    what has not left when the channel drops is gone, like what the library itself drops
 *          then; bytes written while it is down go the same way.
 * Memory:  write() never blocks and never refuses, so whoever feeds the library looks at
 *          backlog().
 */
class Channel {
public:
    struct Events {
        std::function<void(bool up)> onState;
        hostkit::FrameReader::FrameHandler onFrame;
        std::function<void()> onProgress;  // bytes have come in or gone out
    };

    /** Throws like LinkSource. `catalogue` must outlive the channel. */
    Channel(asio::io_context& io, Endpoint const& endpoint, bool listen,
            VeskConfig const& catalogue, Events events);

    /** Opens the channel for the first time. */
    void start() { open(); }

    /** Appends bytes, which leave in this order. */
    void write(std::vector<uint8_t> const& bytes) VESK_EXCLUDES(mMutex);

    /**
     * While held, nothing is read, so that the peer comes to a stop. That the peer has left is
     * then noticed only on release or when a write fails.
     */
    void hold(bool held);

    bool up() const { return mLink != nullptr; }

    /** Bytes that have been written but not left. */
    size_t backlog() const VESK_EXCLUDES(mMutex);

    uint64_t skippedBytes() const { return mReader.skippedBytes(); }

    /** How often the channel came up again after a drop. */
    uint64_t reconnects() const { return mOpened > 0 ? mOpened - 1 : 0; }

private:
    using Milliseconds = std::chrono::milliseconds;
    // Long enough not to burn a core on a dead peer, short enough for a person who watches.
    static constexpr Milliseconds BACK_OFF_FIRST{100};
    static constexpr Milliseconds BACK_OFF_LAST{3200};
    // A peer that pauses this long inside a frame will not complete it.
    static constexpr Milliseconds SILENCE{1000};

    void open();
    void opened(std::shared_ptr<Link> link, asio::error_code const& error);
    void openLater();
    void drop(std::string const& reason);
    void read();
    void received(size_t size);
    void watchSilence();
    bool hasUnread();
    void flush();
    void reportSkipped();

    asio::io_context& mIo;
    Endpoint const mEndpoint;
    bool const mListens;
    Events const mEvents;
    LinkSource mSource;
    hostkit::FrameReader mReader;
    std::shared_ptr<Link> mLink;  // null while the channel is down
    asio::steady_timer mRetry;
    asio::steady_timer mSilence;
    bool mHeld = false;
    bool mReading = false;
    Milliseconds mBackOff = BACK_OFF_FIRST;
    std::vector<uint8_t> mChunk;
    std::vector<uint8_t> mLeaving;  // in the hands of the system; not empty while a write runs
    uint64_t mOpened = 0;
    uint64_t mReportedSkipped = 0;
    std::string mLastError;

    mutable std::mutex mMutex;
    std::vector<uint8_t> mWaiting VESK_GUARDED_BY(mMutex);
    size_t mLeavingSize VESK_GUARDED_BY(mMutex) = 0;
    bool mFlushPosted VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk::tool
