#include "ClientConnection.h"

#include <utility>

#include <asio/post.hpp>

namespace vesk::hostkit {

ClientConnection::ClientConnection(uint32_t id, asio::local::stream_protocol::socket socket,
                                   Owner& owner)
    : mId(id), mSocket(std::move(socket)), mOwner(owner), mPatience(mSocket.get_executor()) {}

void ClientConnection::read() {
    mSocket.async_read_some(
            asio::buffer(mChunk),
            [self = shared_from_this()](asio::error_code const& error, size_t size) {
                if (self->mClosed) return;
                if (error == asio::error::eof) return self->close("it left");
                if (error) return self->close(error.message());
                self->mReader.append(self->mChunk.data(), size);
                self->process();
            });
}

void ClientConnection::process() {
    while (!mClosed && !mRefused) {
        if (!mParked) {
            switch (mReader.next(mMessage)) {
                case client::MessageReader::Result::MESSAGE:
                    break;
                case client::MessageReader::Result::NEED_MORE:
                    return read();
                case client::MessageReader::Result::EMPTY:
                    return mOwner.onBadMessage(*this, "a message without a type");
                case client::MessageReader::Result::TOO_LONG:
                    return mOwner.onBadMessage(*this, "a message is too long; a payload has " +
                                                              std::to_string(MAX_PAYLOAD_SIZE) +
                                                              " bytes at most");
            }
        }
        bool const taken = mOwner.onMessage(*this, mMessage);
        update(!taken);
        if (mParked) return;
    }
}

void ClientConnection::send(client::Bytes const& message) {
    if (mClosed || mRefused) return;
    if (backlog() + message.size() > LIMIT) return evict("it does not read");
    mWaiting.insert(mWaiting.end(), message.begin(), message.end());
    if (mLeaving.empty()) write();
    update(mParked);
}

void ClientConnection::refuse(std::string const& reason) {
    send(client::encodeMessage(client::MessageType::REFUSED, reason));
    mRefused = true;
}

// Whatever gathers while a write runs leaves behind it, all at once.
void ClientConnection::write() {
    if (mLeaving.empty()) mLeaving.swap(mWaiting);
    mSocket.async_write_some(
            asio::buffer(mLeaving) + mLeft,
            [self = shared_from_this()](asio::error_code const& error, size_t size) {
                if (self->mClosed) return;
                if (error) return self->close(error.message());
                self->wrote(size);
            });
}

void ClientConnection::wrote(size_t size) {
    mLeft += size;
    if (mLeft == mLeaving.size()) {
        mLeaving.clear();
        mLeft = 0;
    }
    update(mParked);
    if (backlog() > 0) {
        write();
    } else if (mRefused) {
        close("it was refused");
    }
}

void ClientConnection::update(bool parked) {
    bool const wasCongested = congested();
    bool const held = holds();
    bool const wasParked = std::exchange(mParked, parked);
    mCongested = !mClosed && backlog() > (wasCongested ? RELIEVED : CONGESTED);
    mLetGo = mLetGo && mCongested && mParked;
    if (mCongested != wasCongested || mParked != wasParked) watchCongestion();
    if (holds() != held || congested() != wasCongested) mOwner.onCongestion(*this);
}

void ClientConnection::watchCongestion() {
    mPatience.cancel();
    if (!mCongested) return;
    mPatience.expires_after(mParked ? STANDSTILL : PATIENCE);
    mPatience.async_wait([self = shared_from_this()](asio::error_code const& error) {
        if (!error) self->outOfTime();
    });
}

void ClientConnection::outOfTime() {
    // The timer may have been set anew when this call was already under way.
    if (!mCongested || mPatience.expiry() > asio::steady_timer::clock_type::now()) return;
    if (!mParked) return evict("it reads too slowly");
    mLetGo = true;
    mOwner.onCongestion(*this);
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
    update(false);
    // Not now: the owner may be in the middle of sending to all of its clients.
    asio::post(mSocket.get_executor(),
               [self = shared_from_this(), reason] { self->mOwner.onClosed(*self, reason); });
}

}  // namespace vesk::hostkit
