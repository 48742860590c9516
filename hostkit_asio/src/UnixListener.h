#pragma once

#include <string>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>

namespace vesk::hostkit {

/**
 * A listening Unix socket: replaces the file that a dead process left, refuses to take the place of
 * a live one, and removes its own file in the end.
 */
class UnixListener {
public:
    /** Throws std::runtime_error when the path is served already or cannot be used. */
    UnixListener(asio::io_context& io, std::string const& path);
    ~UnixListener();
    UnixListener(UnixListener const&) = delete;
    UnixListener& operator=(UnixListener const&) = delete;

    asio::local::stream_protocol::acceptor& acceptor() { return mAcceptor; }

private:
    std::string const mPath;
    asio::local::stream_protocol::acceptor mAcceptor;
};

}  // namespace vesk::hostkit
