#pragma once

#include <optional>
#include <string>
#include <utility>

#include <vesk/hostkit_asio/SocketAccess.h>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>

namespace vesk::hostkit {

/**
 * A listening Unix socket: replaces the file that a dead process left, refuses to take the place of
 * a live one, and removes its own file in the end, but not another's that has come to its place.
 */
class UnixListener {
public:
    /** Throws std::runtime_error when the path is served already or cannot be used. */
    UnixListener(asio::io_context& io, std::string const& path, SocketAccess const& access = {});
    ~UnixListener();
    UnixListener(UnixListener const&) = delete;
    UnixListener& operator=(UnixListener const&) = delete;

    asio::local::stream_protocol::acceptor& acceptor() { return mAcceptor; }

private:
    void bind(SocketAccess const& access);
    std::optional<std::pair<dev_t, ino_t>> file() const;

    std::string const mPath;
    std::optional<std::pair<dev_t, ino_t>> mFile;  // our own, whatever name it may have by now
    asio::local::stream_protocol::acceptor mAcceptor;
};

}  // namespace vesk::hostkit
