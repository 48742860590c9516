#include <vesk/client/UnixConnect.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace vesk::client {

namespace {

void limitSends(int socket, std::chrono::milliseconds limit) {
    timeval time{};  // 0: no limit
    time.tv_sec = static_cast<decltype(time.tv_sec)>(limit.count() / 1000);
    time.tv_usec = static_cast<decltype(time.tv_usec)>(limit.count() % 1000 * 1000);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

[[noreturn]] void fail(int error, std::string const& path) {
    // The system says "try again" where the time is over.
    throw std::system_error(error == EAGAIN ? ETIMEDOUT : error, std::generic_category(), path);
}

}  // namespace

int connectUnix(std::string const& path, std::chrono::milliseconds limit) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) fail(ENAMETOOLONG, path);
    std::memcpy(address.sun_path, path.data(), path.size());
    int const socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0) fail(errno, path);
    limitSends(socket, std::max(limit, std::chrono::milliseconds(1)));
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        int const error = errno;
        ::close(socket);
        fail(error, path);
    }
    limitSends(socket, std::chrono::milliseconds(0));
    return socket;
}

}  // namespace vesk::client
