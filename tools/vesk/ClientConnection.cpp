#include "ClientConnection.h"

#include <asio/post.hpp>
#include <asio/write.hpp>

namespace vesk::tool {

ClientConnection::ClientConnection(uint32_t id, asio::local::stream_protocol::socket socket,
                                   Owner& owner)
    : mId(id), mSocket(std::move(socket)), mOwner(owner) {}

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
    if (mWaiting.size() + mLeaving.size() + message.size() > OUTGOING_LIMIT) {
        mEvicted = true;
        return close("it did not read the " + std::to_string(mWaiting.size() + mLeaving.size()) +
                     " bytes that wait for it");
    }
    mWaiting.insert(mWaiting.end(), message.begin(), message.end());
    if (mLeaving.empty()) write();
}

void ClientConnection::refuse(std::string const& reason) {
    send(encodeMessage(MessageType::REFUSED, reason));
    mRefused = true;
}

// Whatever gathers while a write runs leaves in the next one.
void ClientConnection::write() {
    mLeaving.swap(mWaiting);
    asio::async_write(mSocket, asio::buffer(mLeaving),
                      [self = shared_from_this()](asio::error_code const& error, size_t) {
                          self->mLeaving.clear();
                          if (self->mClosed) return;
                          if (error) return self->close(error.message());
                          if (!self->mWaiting.empty()) return self->write();
                          if (self->mRefused) self->close("it was refused");
                      });
}

void ClientConnection::close(std::string const& reason) {
    if (mClosed) return;
    mClosed = true;
    asio::error_code ignored;
    mSocket.close(ignored);
    // Not now: the owner may be in the middle of sending to all of its clients.
    asio::post(mSocket.get_executor(),
               [self = shared_from_this(), reason] { self->mOwner.onClosed(*self, reason); });
}

}  // namespace vesk::tool
