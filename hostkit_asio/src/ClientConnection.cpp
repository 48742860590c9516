#include "ClientConnection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <asio/post.hpp>

namespace vesk::hostkit {

using Result = client::MessageReader::Result;

ClientConnection::ClientConnection(uint32_t id, asio::local::stream_protocol::socket socket,
                                   Owner& owner, std::shared_ptr<Shared> shared, size_t limit)
    : mId(id),
      mSocket(std::move(socket)),
      mOwner(owner),
      mShared(std::move(shared)),
      mLimit(limit),
      mBacklog(mShared->backlog) {}

void ClientConnection::start() {
    awaitEnd();
    awaitBytes();
}

void ClientConnection::awaitBytes() {
    if (mAwaiting) return;
    mAwaiting = true;
    mSocket.async_wait(asio::socket_base::wait_read,
                       [self = shared_from_this()](asio::error_code const& error) {
                           self->mAwaiting = false;
                           if (!error) self->take();
                       });
}

// Tells that the client is gone also while nothing is read from it.
void ClientConnection::awaitEnd() {
    mSocket.async_wait(asio::socket_base::wait_error,
                       [self = shared_from_this()](asio::error_code const& error) {
                           if (error) return;
                           self->mGone = true;
                           if (self->mPaused || self->mRefused) self->close("it left");
                       });
}

void ClientConnection::resume() {
    if (!mPaused) return;
    mPaused = false;
    mResumed = Backlog::Clock::now();
    take();
}

void ClientConnection::take() {
    if (mClosed || mRefused) return;
    hasPart() ? takePart() : takeWhole();
    if (!mClosed && !mRefused && !mPaused) awaitBytes();
}

// Looks at what has come and takes out of the socket only what the owner has taken.
void ClientConnection::takeWhole() {
    ssize_t const size = receive(mShared->chunk.data(), mShared->chunk.size(), MSG_PEEK);
    if (size <= 0) return;
    size_t used = 0;
    Result result = Result::MESSAGE;
    while (result == Result::MESSAGE && !mPaused && !mClosed && !mRefused) {
        size_t taken = 0;
        result = offer(mShared->chunk.data() + used, static_cast<size_t>(size) - used, taken);
        used += taken;
    }
    if (mClosed) return;
    if (used == 0 && result == Result::NEED_MORE) return beginPart(static_cast<size_t>(size));
    discard(used);
}

// Offers the message that stands at the beginning of these bytes.
Result ClientConnection::offer(uint8_t const* bytes, size_t size, size_t& taken) {
    Result const result = client::MessageReader::cut(bytes, size, mShared->message, taken);
    if (result == Result::EMPTY) {
        mOwner.onBadMessage(*this, "a message without a type");
    } else if (result == Result::TOO_LONG) {
        mOwner.onBadMessage(*this, "a message is too long; a payload has " +
                                           std::to_string(MAX_PAYLOAD_SIZE) + " bytes at most");
    } else if (result == Result::MESSAGE && !mOwner.onMessage(*this, mShared->message)) {
        taken = 0;
        pause();
    }
    return result;
}

void ClientConnection::beginPart(size_t size) {
    size_t const whole = client::MessageReader::sizeOf(mShared->chunk.data(), size);
    if (!mOwner.onPart(*this, whole)) return pause();
    if (mClosed || mRefused) return;
    mPartSince = Backlog::Clock::now();
    auto const end = mShared->chunk.begin() + static_cast<client::Bytes::difference_type>(size);
    mPart.reserve(whole);
    mPart.assign(mShared->chunk.begin(), end);
    discard(size);
}

// Takes no more than the message's own bytes.
void ClientConnection::takePart() {
    size_t const whole = client::MessageReader::sizeOf(mPart.data(), mPart.size());
    if (size_t const missing = whole - mPart.size(); missing > 0) {
        ssize_t const size = receive(mShared->chunk.data(), missing, 0);
        if (size <= 0) return;
        mPart.insert(mPart.end(), mShared->chunk.begin(), mShared->chunk.begin() + size);
    }
    size_t taken = 0;
    offer(mPart.data(), mPart.size(), taken);
    if (taken > 0) client::Bytes().swap(mPart);
}

ssize_t ClientConnection::receive(uint8_t* bytes, size_t size, int flags) {
    ssize_t const received = ::recv(mSocket.native_handle(), bytes, size, flags | MSG_DONTWAIT);
    if (received == 0) close("it left");
    if (received < 0 && errno != EAGAIN && errno != EINTR) {
        close(asio::error_code(errno, asio::error::get_system_category()).message());
    }
    return received;
}

void ClientConnection::discard(size_t size) {
    while (size > 0 && !mClosed) {
        ssize_t const received = receive(mShared->chunk.data(), size, 0);
        if (received <= 0) return;
        size -= static_cast<size_t>(received);
    }
}

void ClientConnection::pause() {
    mPaused = true;
    if (mGone) close("it left");
}

void ClientConnection::send(client::Bytes message) {
    if (mClosed || mRefused) return;
    if (backlog() + message.size() > mLimit) return evict("it does not read");
    mBacklog.append(std::move(message));
    if (!mWriting) write();
    mOwner.onBacklog(*this);
}

void ClientConnection::refuse(std::string const& reason) {
    send(client::encodeMessage(client::MessageType::REFUSED, reason));
    mRefused = true;
}

// Whatever gathers while a write runs leaves behind it.
void ClientConnection::write() {
    mWriting = true;
    mSocket.async_write_some(
            asio::buffer(mBacklog.next()),
            [self = shared_from_this()](asio::error_code const& error, size_t size) {
                if (self->mClosed) return;
                if (error) return self->close(error.message());
                self->wrote(size);
            });
}

void ClientConnection::wrote(size_t size) {
    mBacklog.written(size);
    mWriting = !mBacklog.empty();
    if (mWriting) {
        write();
    } else if (mRefused) {
        return close("it was refused");
    }
    mOwner.onBacklog(*this);
}

bool ClientConnection::isTrusted() {
    ucred peer{};
    socklen_t size = sizeof(peer);
    bool const known =
            ::getsockopt(mSocket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    return known && (peer.uid == ::geteuid() || peer.uid == 0);
}

Backlog::Clock::time_point ClientConnection::waitingSince() const {
    return mBacklog.empty() ? Backlog::Clock::now() : mBacklog.since();
}

Backlog::Clock::time_point ClientConnection::excusedSince() const {
    return mPaused ? Backlog::Clock::now() : std::max(waitingSince(), mResumed);
}

void ClientConnection::evict(std::string const& reason) {
    mEvicted = true;
    close(reason + ": " + std::to_string(backlog()) + " bytes wait for it");
}

void ClientConnection::close(std::string const& reason) {
    if (mClosed) return;
    mClosed = true;
    asio::error_code ignored;
    mSocket.close(ignored);
    mBacklog.clear();
    client::Bytes().swap(mPart);
    // Not now: the owner may be in the middle of sending to all of its clients.
    asio::post(mSocket.get_executor(),
               [self = shared_from_this(), reason] { self->mOwner.onClosed(*self, reason); });
}

}  // namespace vesk::hostkit
