#include <vesk/hostkit_asio/Channel.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>

#include "LinkSource.h"

namespace vesk::hostkit {

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr size_t CHUNK_SIZE = size_t{256} * 1024;
// A peer may send twenty thousand frames in that, so others get their turn between.
constexpr size_t SLICE_SIZE = size_t{4} * 1024;
constexpr size_t FRAMES_A_TURN = 64;
// Long enough not to burn a core on a dead peer, short enough for a person who watches.
constexpr Milliseconds BACK_OFF_FIRST{100};
constexpr Milliseconds BACK_OFF_LAST{3200};
// A peer that pauses this long inside a frame will not complete it.
constexpr Milliseconds SILENCE{1000};

}  // namespace

class Channel::Impl {
public:
    Impl(asio::io_context& io, Endpoint const& endpoint, bool listen, VeskConfig const& catalogue,
         Events events);

    void open();
    void hold(bool held);
    bool up() const { return mLink != nullptr; }
    void write(std::vector<uint8_t> bytes);
    Outbox& outbox() { return mOutbox; }
    FrameReader const& reader() const { return mReader; }
    uint64_t reconnects() const { return mOpened > 0 ? mOpened - 1 : 0; }
    std::chrono::steady_clock::time_point changed() const { return mChanged; }

private:
    void opened(std::shared_ptr<Link> link, asio::error_code const& error);
    void openLater();
    void drop(std::string const& reason);
    void read();
    void goOn(std::shared_ptr<Link> const& link);
    void goOnLater();
    void received();
    void watchSilence();
    void flush();
    void passSkipped();
    void reportSkipped();

    asio::io_context& mIo;
    Endpoint const mEndpoint;
    bool const mListens;
    Events const mEvents;
    LinkSource mSource;
    FrameReader mReader;
    Outbox mOutbox;
    std::shared_ptr<Link> mLink;  // null while the channel is down
    asio::steady_timer mRetry;
    asio::steady_timer mSilence;
    bool mHeld = false;
    bool mReading = false;
    bool mWriting = false;
    Milliseconds mBackOff = BACK_OFF_FIRST;
    std::vector<uint8_t> mChunk;
    size_t mChunkSize = 0;  // what was read into it
    size_t mChunkUsed = 0;
    size_t mFrames = 0;  // of this turn
    bool mGoesOn = false;
    uint64_t mOpened = 0;
    std::chrono::steady_clock::time_point mChanged = std::chrono::steady_clock::now();
    uint64_t mPassedSkipped = 0;
    uint64_t mReportedSkipped = 0;
    std::string mLastError;
};

Channel::Impl::Impl(asio::io_context& io, Endpoint const& endpoint, bool listen,
                    VeskConfig const& catalogue, Events events)
    : mIo(io),
      mEndpoint(endpoint),
      mListens(listen),
      mEvents(std::move(events)),
      mSource(io, endpoint, listen, mEvents.report),
      mReader(catalogue,
              [this](std::shared_ptr<VeskFrame> const& frame) {
                  passSkipped();
                  ++mFrames;
                  mEvents.onFrame(frame);
              }),
      mOutbox([this] { asio::post(mIo, [this] { flush(); }); }),
      mRetry(io),
      mSilence(io),
      mChunk(CHUNK_SIZE) {
    mOutbox.close();
}

void Channel::Impl::open() {
    mSource.open([this](std::shared_ptr<Link> link, asio::error_code const& error) {
        opened(std::move(link), error);
    });
}

void Channel::Impl::opened(std::shared_ptr<Link> link, asio::error_code const& error) {
    if (error) {
        // Said once, not at each attempt.
        if (mLastError != error.message()) {
            mEvents.report("cannot open the channel " + mEndpoint.toString() + ": " +
                           error.message() + "; trying again");
        }
        mLastError = error.message();
        openLater();
        return;
    }
    mLastError.clear();
    mLink = std::move(link);
    ++mOpened;
    if (mEvents.watcher) mEvents.watcher->opened(mEndpoint.toString());
    mOutbox.open();
    mChanged = std::chrono::steady_clock::now();
    mEvents.report("channel up: " + mEndpoint.toString());
    mEvents.onState(true);
    read();
}

void Channel::Impl::openLater() {
    mRetry.expires_after(mBackOff);
    mBackOff = std::min(mBackOff * 2, BACK_OFF_LAST);
    mRetry.async_wait([this](asio::error_code const& error) {
        if (!error) open();
    });
}

void Channel::Impl::drop(std::string const& reason) {
    // What was read, and has waited while the channel was held, has come all the same.
    if (mChunkUsed < mChunkSize) {
        mReader.feed(mChunk.data() + mChunkUsed, mChunkSize - mChunkUsed);
    }
    mLink->close();
    mLink.reset();
    mReading = false;
    mChunkSize = mChunkUsed = 0;
    mSilence.cancel();
    mReader.reset();
    reportSkipped();
    size_t const lost = mOutbox.close();
    if (mEvents.watcher) mEvents.watcher->closed();
    mChanged = std::chrono::steady_clock::now();
    mEvents.report("channel down: " + reason + "; " + std::to_string(lost) +
                   " bytes on their way out are lost; clients stay and wait");
    mEvents.onState(false);
    if (mSource.isExhausted()) return mEvents.onEnd();
    // Only an attempt of our own costs anything: a listener just waits for the peer.
    mListens ? open() : openLater();
}

void Channel::Impl::hold(bool held) {
    if (held == mHeld) return;
    mHeld = held;
    if (held) {
        mSilence.cancel();
    } else if (mLink) {
        watchSilence();
        mChunkUsed < mChunkSize ? goOnLater() : read();
    }
}

void Channel::Impl::read() {
    if (!mLink || mHeld || mReading) return;
    mReading = true;
    mLink->reader().async_read_some(
            asio::buffer(mChunk), [this, link = mLink](asio::error_code const& error, size_t size) {
                if (link != mLink) return;
                if (error)
                    return drop(error == asio::error::eof ? "the peer closed it" : error.message());
                mBackOff = BACK_OFF_FIRST;  // there is somebody: next time it is worth asking soon
                mChunkSize = size;
                mChunkUsed = 0;
                if (mEvents.watcher) {
                    mEvents.watcher->carried(FrameText::Direction::IN, mChunk.data(), size);
                }
                if (!mHeld) goOn(link);
            });
}

void Channel::Impl::received() {
    uint64_t const skipped = mReader.skippedBytes();
    for (mFrames = 0; mChunkUsed < mChunkSize && mFrames < FRAMES_A_TURN && !mHeld;) {
        size_t const size = std::min(mChunkSize - mChunkUsed, SLICE_SIZE);
        mReader.feed(mChunk.data() + mChunkUsed, size);
        mChunkUsed += size;
    }
    // While garbage goes on coming, its end is not worth a line yet.
    if (mReader.skippedBytes() == skipped) reportSkipped();
    watchSilence();
    mEvents.onProgress();
}

// Goes through what was read, unless the link is gone meanwhile.
void Channel::Impl::goOn(std::shared_ptr<Link> const& link) {
    received();
    if (link != mLink) return;
    if (mChunkUsed < mChunkSize) return goOnLater();
    mReading = false;
    read();
}

void Channel::Impl::goOnLater() {
    if (mHeld || mGoesOn) return;
    mGoesOn = true;
    asio::post(mIo, [this, link = mLink] {
        mGoesOn = false;
        if (link == mLink && !mHeld) goOn(link);
    });
}

void Channel::Impl::watchSilence() {
    if (mHeld) return;  // the silence would be of our own making
    if (!mReader.incomplete() && mReportedSkipped == mReader.skippedBytes()) {
        mSilence.cancel();
        return;
    }
    mSilence.expires_after(SILENCE);
    mSilence.async_wait([this, link = mLink](asio::error_code const& error) {
        // This host may have been late: the timer has gone off, and can no longer be cancelled,
        // while bytes, or the end of the link, came. Then the silence was not the peer's.
        bool const isRearmed = std::chrono::steady_clock::now() < mSilence.expiry();
        if (error || link != mLink || mHeld || isRearmed || link->hasUnread()) return;
        mReader.abandon();
        reportSkipped();
        mEvents.onProgress();
    });
}

void Channel::Impl::passSkipped() {
    uint64_t const skipped = mReader.skippedBytes();
    if (skipped == mPassedSkipped) return;
    uint64_t const bytes = skipped - std::exchange(mPassedSkipped, skipped);
    if (mEvents.onSkipped) mEvents.onSkipped(bytes);
}

void Channel::Impl::reportSkipped() {
    passSkipped();
    uint64_t const skipped = mReader.skippedBytes();
    if (skipped == mReportedSkipped) return;
    mEvents.report("skipped " + std::to_string(skipped - mReportedSkipped) +
                   " bytes on the channel that belong to no frame");
    mReportedSkipped = skipped;
}

// Before they are handed over: the answer to them must not be seen first.
void Channel::Impl::write(std::vector<uint8_t> bytes) {
    if (mEvents.watcher) {
        mEvents.watcher->carried(FrameText::Direction::OUT, bytes.data(), bytes.size());
    }
    mOutbox.put(std::move(bytes));
}

// Whatever has gathered meanwhile leaves in one write. One that was on its way when the channel
// dropped ends with an error, and what has come for the next link leaves behind it.
void Channel::Impl::flush() {
    if (mWriting || !mLink) return;
    Outbox::Batch const batch = mOutbox.take();
    if (batch.size == 0) return;
    mWriting = true;
    asio::async_write(mLink->writer(), asio::buffer(batch.data, batch.size),
                      [this, link = mLink](asio::error_code const& error, size_t size) {
                          mWriting = false;
                          mOutbox.written(size);
                          if (error && link == mLink) drop(error.message());
                          if (error) mOutbox.failed();
                          flush();
                          mEvents.onProgress();
                      });
}

Channel::Channel(asio::io_context& io, Endpoint const& endpoint, bool listen,
                 VeskConfig const& catalogue, Events events)
    : mImpl(std::make_unique<Impl>(io, endpoint, listen, catalogue, std::move(events))) {}

Channel::~Channel() = default;

void Channel::start() {
    mImpl->open();
}

void Channel::write(std::vector<uint8_t> bytes) {
    mImpl->write(std::move(bytes));
}

void Channel::hold(bool held) {
    mImpl->hold(held);
}

bool Channel::up() const {
    return mImpl->up();
}

Outbox const& Channel::outbox() const {
    return mImpl->outbox();
}

FrameReader const& Channel::reader() const {
    return mImpl->reader();
}

uint64_t Channel::stateMillis() const {
    auto const time = std::chrono::steady_clock::now() - mImpl->changed();
    return static_cast<uint64_t>(std::chrono::duration_cast<Milliseconds>(time).count());
}

uint64_t Channel::reconnects() const {
    return mImpl->reconnects();
}

}  // namespace vesk::hostkit
