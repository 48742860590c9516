#pragma once

#include <memory>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/write.hpp>

#include "UnixListener.h"

namespace vesk::e2e {

/** One end of a wire: whatever a host holds the other side of. */
using WireEnd = std::shared_ptr<asio::posix::stream_descriptor>;

/** Carries bytes between two hosts, and whatever a test adds to them. */
class Wire {
public:
    Wire(WireEnd const& a, WireEnd const& b) : mA(a), mB(b) {
        carry(a, b);
        carry(b, a);
    }

    /** Slips bytes into what the host at end `b` reads. REQUIRES: nothing else is under way. */
    void insertTowardsB(std::vector<uint8_t> const& bytes) {
        asio::write(*mB, asio::buffer(bytes));
    }

    /** Cuts it: both hosts see the end of their channel. */
    void cut() {
        mA->close();
        mB->close();
    }

private:
    static void carry(WireEnd const& from, WireEnd const& to) {
        auto const bytes = std::make_shared<std::string>(size_t{64} * 1024, '\0');
        from->async_read_some(asio::buffer(*bytes), [=](asio::error_code readError, size_t size) {
            if (readError) return;
            asio::async_write(*to, asio::buffer(*bytes, size),
                              [from, to, bytes](asio::error_code writeError, size_t) {
                                  if (!writeError) carry(from, to);
                              });
        });
    }

    WireEnd mA, mB;
};

/** Listens where a host will connect to, and takes its connection for the end of a wire. */
class Socket {
public:
    Socket(asio::io_context& io, std::string const& path) : mListener(io, path) {
        mListener.acceptor().async_accept([this, &io](asio::error_code error, auto socket) {
            if (error) return;
            mEnd = std::make_shared<asio::posix::stream_descriptor>(io, socket.release());
        });
    }

    bool connected() const { return mEnd != nullptr; }
    WireEnd const& end() const { return mEnd; }

private:
    tool::UnixListener mListener;
    WireEnd mEnd;
};

}  // namespace vesk::e2e
