#include "UnixListener.h"

#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include <vesk/client/UnixConnect.h>

namespace vesk::hostkit {

namespace {

// Unlinks the file of one that is not: the process that listened there is dead.
bool isServed(std::string const& path) {
    try {
        ::close(client::connectUnix(path, std::chrono::milliseconds(1)));
        return true;
    } catch (std::system_error const& error) {
        if (error.code() == std::errc::connection_refused) ::unlink(path.c_str());
        return error.code() == std::errc::timed_out;
    }
}

void removeStaleSocket(std::string const& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return;
    if (!S_ISSOCK(info.st_mode)) {
        throw std::runtime_error("'" + path + "' exists and is no socket; choose another path");
    }
    if (isServed(path)) {
        throw std::runtime_error("another process serves '" + path +
                                 "'; stop it or choose another path");
    }
}

}  // namespace

UnixListener::UnixListener(asio::io_context& io, std::string const& path)
    : mPath(path), mAcceptor(io) {
    removeStaleSocket(path);
    asio::error_code error;
    mAcceptor.open(asio::local::stream_protocol(), error);
    if (!error) mAcceptor.bind(path, error);
    if (error) {
        throw std::runtime_error("cannot create the socket '" + path + "': " + error.message() +
                                 "; choose a path where one can be created");
    }
    mAcceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        ::unlink(path.c_str());
        throw std::runtime_error("cannot listen on '" + path + "': " + error.message());
    }
}

UnixListener::~UnixListener() {
    ::unlink(mPath.c_str());
}

}  // namespace vesk::hostkit
