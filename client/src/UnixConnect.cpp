#include <vesk/client/UnixConnect.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

namespace vesk::client {

namespace {

void limitSends(int socket, std::chrono::milliseconds limit) {
    timeval time{};  // 0: no limit
    time.tv_sec = static_cast<decltype(time.tv_sec)>(limit.count() / 1000);
    time.tv_usec = static_cast<decltype(time.tv_usec)>(limit.count() % 1000 * 1000);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

}  // namespace

// Asio's connect takes the system's EAGAIN, which is how the limit shows, for a connection.
asio::error_code connectUnix(asio::local::stream_protocol::socket& socket, std::string const& path,
                             std::chrono::milliseconds limit) {
    asio::error_code error;
    asio::local::stream_protocol::endpoint const endpoint(path);
    socket.open(endpoint.protocol(), error);
    if (error) return error;
    limitSends(socket.native_handle(), limit);
    if (::connect(socket.native_handle(), endpoint.data(),
                  static_cast<socklen_t>(endpoint.size())) != 0) {
        error.assign(errno, asio::error::get_system_category());
    }
    limitSends(socket.native_handle(), std::chrono::milliseconds(0));
    return error == asio::error::try_again ? asio::error::timed_out : error;
}

}  // namespace vesk::client
