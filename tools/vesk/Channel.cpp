#include "Channel.h"

#include <algorithm>
#include <utility>

#include <asio/post.hpp>
#include <asio/write.hpp>

#include "Errors.h"

namespace vesk::tool {

namespace {
constexpr size_t CHUNK_SIZE = size_t{256} * 1024;
}

Channel::Channel(asio::io_context& io, Endpoint const& endpoint, bool listen,
                 VeskConfig const& catalogue, Events events)
    : mIo(io),
      mEndpoint(endpoint),
      mListens(listen),
      mEvents(std::move(events)),
      mSource(io, endpoint, listen),
      mReader(catalogue, mEvents.onFrame),
      mRetry(io),
      mSilence(io),
      mChunk(CHUNK_SIZE) {}

void Channel::open() {
    mSource.open([this](std::shared_ptr<Link> link, asio::error_code const& error) {
        opened(std::move(link), error);
    });
}

void Channel::opened(std::shared_ptr<Link> link, asio::error_code const& error) {
    if (error) {
        // Said once, not at each attempt.
        if (mLastError != error.message()) {
            say("cannot open the channel " + mEndpoint.toString() + ": " + error.message() +
                "; trying again");
        }
        mLastError = error.message();
        openLater();
        return;
    }
    mLastError.clear();
    mLink = std::move(link);
    ++mOpened;
    say("channel up: " + mEndpoint.toString());
    mEvents.onState(true);
    read();
}

void Channel::openLater() {
    mRetry.expires_after(mBackOff);
    mBackOff = std::min(mBackOff * 2, BACK_OFF_LAST);
    mRetry.async_wait([this](asio::error_code const& error) {
        if (!error) open();
    });
}

void Channel::drop(std::string const& reason) {
    mLink->close();
    mLink.reset();
    mReading = false;
    mSilence.cancel();
    mReader.reset();
    reportSkipped();
    size_t lost;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        lost = mWaiting.size() + mLeavingSize;
        mWaiting.clear();
        mLeavingSize = 0;
    }
    say("channel down: " + reason + "; " + std::to_string(lost) +
        " bytes on their way out are lost; clients stay and wait");
    mEvents.onState(false);
    // Only an attempt of our own costs anything: a listener just waits for the peer.
    mListens ? open() : openLater();
}

void Channel::hold(bool held) {
    if (held == mHeld) return;
    mHeld = held;
    if (held) {
        mSilence.cancel();
    } else if (mLink) {
        watchSilence();
        read();
    }
}

void Channel::read() {
    if (!mLink || mHeld || mReading) return;
    mReading = true;
    mLink->async_read_some(
            asio::buffer(mChunk), [this, link = mLink](asio::error_code const& error, size_t size) {
                if (link != mLink) return;
                if (error)
                    return drop(error == asio::error::eof ? "the peer closed it" : error.message());
                received(size);
                mReading = false;
                read();
            });
}

void Channel::received(size_t size) {
    mBackOff = BACK_OFF_FIRST;  // there is somebody: next time it is worth asking soon
    uint64_t const skipped = mReader.skippedBytes();
    mReader.feed(mChunk.data(), size);
    // While garbage goes on coming, its end is not worth a line yet.
    if (mReader.skippedBytes() == skipped) reportSkipped();
    watchSilence();
    mEvents.onProgress();
}

void Channel::watchSilence() {
    if (mHeld) return;  // the silence would be of our own making
    if (!mReader.incomplete() && mReportedSkipped == mReader.skippedBytes()) {
        mSilence.cancel();
        return;
    }
    mSilence.expires_after(SILENCE);
    mSilence.async_wait([this](asio::error_code const& error) {
        if (error || mHeld || hasUnread()) return;
        mReader.abandon();
        reportSkipped();
        mEvents.onProgress();
    });
}

// Bytes that have come and were not read yet: the silence was this host's, not the peer's.
bool Channel::hasUnread() {
    asio::posix::descriptor_base::bytes_readable waiting;
    asio::error_code unknown;
    mLink->io_control(waiting, unknown);
    return waiting.get() > 0;
}

void Channel::reportSkipped() {
    uint64_t const skipped = mReader.skippedBytes();
    if (skipped == mReportedSkipped) return;
    say("skipped " + std::to_string(skipped - mReportedSkipped) +
        " bytes on the channel that belong to no frame");
    mReportedSkipped = skipped;
}

void Channel::write(std::vector<uint8_t> const& bytes) {
    std::lock_guard<std::mutex> lock(mMutex);
    mWaiting.insert(mWaiting.end(), bytes.begin(), bytes.end());
    if (mFlushPosted) return;
    mFlushPosted = true;
    asio::post(mIo, [this] { flush(); });
}

size_t Channel::backlog() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mWaiting.size() + mLeavingSize;
}

// Whatever has gathered meanwhile leaves in one write.
void Channel::flush() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFlushPosted = false;
        if (!mLink) mWaiting.clear();
        if (!mLeaving.empty() || mWaiting.empty()) return;
        mLeaving.swap(mWaiting);
        mLeavingSize = mLeaving.size();
    }
    asio::async_write(*mLink, asio::buffer(mLeaving),
                      [this, link = mLink](asio::error_code const& error, size_t) {
                          mLeaving.clear();
                          if (link == mLink) {
                              std::lock_guard<std::mutex> lock(mMutex);
                              mLeavingSize = 0;
                          }
                          if (error && link == mLink) return drop(error.message());
                          flush();
                          mEvents.onProgress();
                      });
}

}  // namespace vesk::tool
