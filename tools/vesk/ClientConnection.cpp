#include "ClientConnection.h"

#include <asio/post.hpp>

namespace vesk::tool {

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
        if (!mHasMessage) {
            switch (mReader.next(mMessage)) {
                case MessageReader::Result::MESSAGE:
                    mHasMessage = true;
                    break;
                case MessageReader::Result::NEED_MORE:
                    return read();
                case MessageReader::Result::EMPTY:
                    return mOwner.onBadMessage(*this, "a message without a type");
                case MessageReader::Result::TOO_LONG:
                    return mOwner.onBadMessage(*this, "a message is too long; a payload has " +
                                                              std::to_string(MAX_PAYLOAD) +
                                                              " bytes at most");
            }
        }
        if (!handOver()) return;
    }
}

bool ClientConnection::handOver() {
    mHasMessage = !mOwner.onMessage(*this, mMessage);
    return !mHasMessage;
}

void ClientConnection::send(Bytes const& message) {
    if (mClosed || mRefused) return;
    mWaiting.insert(mWaiting.end(), message.begin(), message.end());
    if (mLeaving.empty()) write();
    if (backlog() > CONGESTED) setCongested(true);
}

void ClientConnection::refuse(std::string const& reason) {
    send(encodeMessage(MessageType::REFUSED, reason));
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
    mReads = true;
    mLeft += size;
    if (mLeft == mLeaving.size()) {
        mLeaving.clear();
        mLeft = 0;
    }
    if (backlog() < CONGESTED / 2) setCongested(false);
    if (backlog() > 0) {
        write();
    } else if (mRefused) {
        close("it was refused");
    }
}

void ClientConnection::setCongested(bool congested) {
    if (congested == mCongested) return;
    mCongested = congested;
    congested ? watchCongestion() : (void)mPatience.cancel();
    mOwner.onCongestion(*this, congested);
}

void ClientConnection::watchCongestion() {
    mReads = false;
    mPatience.expires_after(PATIENCE);
    mPatience.async_wait([self = shared_from_this()](asio::error_code const& error) {
        if (error || self->mClosed || !self->mCongested) return;
        if (self->mReads) return self->watchCongestion();
        self->mEvicted = true;
        self->close("it does not read the " + std::to_string(self->backlog()) +
                    " bytes that wait for it");
    });
}

void ClientConnection::close(std::string const& reason) {
    if (mClosed) return;
    mClosed = true;
    asio::error_code ignored;
    mSocket.close(ignored);
    setCongested(false);
    // Not now: the owner may be in the middle of sending to all of its clients.
    asio::post(mSocket.get_executor(),
               [self = shared_from_this(), reason] { self->mOwner.onClosed(*self, reason); });
}

}  // namespace vesk::tool
