#include <vesk/client/HostClient.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include <asio/system_error.hpp>
#include <asio/write.hpp>

#include <vesk/client/UnixConnect.h>

namespace vesk::client {

namespace {

std::string text(Message const& message) {
    return {message.body.begin(), message.body.end()};
}

[[noreturn]] void throwNotUnderstood() {
    throw std::runtime_error("the host's answer is not understood; is it another version of vesk?");
}

}  // namespace

HostClient::HostClient(asio::io_context& io, std::string const& path,
                       std::chrono::milliseconds limit)
    : mLimit(limit), mSocket(io) {
    asio::error_code const error = connectUnix(mSocket, path, limit);
    if (error == asio::error::timed_out) {
        throw std::runtime_error("the host at '" + path +
                                 "' does not accept; see whether it is stopped");
    }
    if (error) {
        throw std::runtime_error("no host serves '" + path + "' (" + error.message() +
                                 "); start one with: vesk host --clients unix:" + path +
                                 " --channel ENDPOINT");
    }
}

uint16_t HostClient::join(int role, BusinessName const& business) {
    Message const answer = ask(JoinMessage{role, business.topic, business.business}.encode());
    if (answer.type == MessageType::REFUSED) throw std::invalid_argument(text(answer));
    auto const joined = JoinedMessage::decode(answer.body);
    if (answer.type != MessageType::JOINED || !joined) throwNotUnderstood();
    return joined->session;
}

Counters HostClient::query() {
    Message const answer = ask(encodeMessage(MessageType::QUERY));
    if (answer.type == MessageType::REFUSED) {
        throw std::runtime_error("the host refused: " + text(answer));
    }
    auto const counters = Counters::decode(answer.body);
    if (answer.type != MessageType::COUNTERS || !counters) throwNotUnderstood();
    return *counters;
}

Message HostClient::ask(Bytes const& question) {
    try {
        asio::write(mSocket, asio::buffer(question));
        return receive();
    } catch (asio::system_error const& error) {
        throw std::runtime_error("the host went away before it answered (" +
                                 error.code().message() +
                                 "); see why it ended, start it again and repeat the command");
    }
}

Message HostClient::receive() {
    Message message;
    auto const deadline = std::chrono::steady_clock::now() + mLimit;
    for (;;) {
        switch (mReader.next(message)) {
            case MessageReader::Result::MESSAGE:
                return message;
            case MessageReader::Result::NEED_MORE:
                awaitBytes(deadline);
                mReader.append(mChunk.data(), mSocket.read_some(asio::buffer(mChunk)));
                break;
            default:
                throwNotUnderstood();
        }
    }
}

void HostClient::awaitBytes(std::chrono::steady_clock::time_point deadline) {
    pollfd waiting{mSocket.native_handle(), POLLIN, 0};
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        int const ready = ::poll(&waiting, 1, std::max(0, static_cast<int>(left.count())));
        if (ready > 0 || (ready < 0 && errno != EINTR)) return;
        if (ready == 0)
            throw std::runtime_error("the host does not answer; see whether it is stopped");
    }
}

void HostClient::start(MessageHandler onMessage, ClosedHandler onClosed) {
    mOnMessage = std::move(onMessage);
    mOnClosed = std::move(onClosed);
    handOver();
}

void HostClient::read() {
    mSocket.async_read_some(asio::buffer(mChunk),
                            [this](asio::error_code const& error, size_t size) {
                                if (error) return closed("the host is gone: " + error.message());
                                mReader.append(mChunk.data(), size);
                                handOver();
                            });
}

void HostClient::handOver() {
    Message message;
    for (;;) {
        switch (mReader.next(message)) {
            case MessageReader::Result::MESSAGE:
                if (message.type == MessageType::REFUSED) {
                    return closed("the host refused: " + text(message));
                }
                mOnMessage(message);
                break;
            case MessageReader::Result::NEED_MORE:
                return read();
            default:
                return closed("the host's messages are not understood");
        }
    }
}

void HostClient::send(Bytes const& message) {
    mWaiting.insert(mWaiting.end(), message.begin(), message.end());
    if (mLeaving.empty()) write();
}

void HostClient::write() {
    mLeaving.swap(mWaiting);
    asio::async_write(mSocket, asio::buffer(mLeaving),
                      [this](asio::error_code const& error, size_t) {
                          mLeaving.clear();
                          // Why the host does not take it any more, reading will tell.
                          if (!error && !mWaiting.empty()) write();
                      });
}

void HostClient::closed(std::string const& reason) {
    if (mOnClosed) std::exchange(mOnClosed, nullptr)(reason);
}

}  // namespace vesk::client
