#include "UnixListener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <vesk/client/UnixConnect.h>

namespace vesk::hostkit {

namespace {

/**
 * Held while a socket is created in a directory, so that of two hosts that start at once neither
 * takes the other's, which is not listened to yet, for one that a dead process left. Others may
 * hold such a lock for as long as they like; so it is waited for a second and then done without.
 */
class StartLock {
public:
    explicit StartLock(std::string const& path) {
        std::string const directory = path.substr(0, path.rfind('/') + 1);
        mFd = ::open(directory.empty() ? "." : directory.c_str(),
                     O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int tries = 0; mFd >= 0 && tries < 100; ++tries) {
            if (::flock(mFd, LOCK_EX | LOCK_NB) == 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~StartLock() {
        if (mFd >= 0) ::close(mFd);
    }
    StartLock(StartLock const&) = delete;
    StartLock& operator=(StartLock const&) = delete;

private:
    int mFd = -1;
};

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

UnixListener::UnixListener(asio::io_context& io, std::string const& path,
                           SocketAccess const& access)
    : mPath(path), mAcceptor(io) {
    StartLock const lock(path);
    removeStaleSocket(path);
    mAcceptor.open(asio::local::stream_protocol());
    bind(access);
    asio::error_code error;
    mAcceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        ::unlink(path.c_str());
        throw std::runtime_error("cannot listen on '" + path + "': " + error.message());
    }
}

// Nobody can connect before listen(), and when that comes the mode is right.
void UnixListener::bind(SocketAccess const& access) {
    asio::error_code error;
    ::fchmod(mAcceptor.native_handle(), 0600);  // the file will have it too, less the umask
    mAcceptor.bind(mPath, error);
    if (error) {
        throw std::runtime_error("cannot create the socket '" + mPath + "': " + error.message() +
                                 "; choose a path where one can be created");
    }
    mFile = file();
    bool const isGiven =
            !access.group || ::lchown(mPath.c_str(), static_cast<uid_t>(-1), *access.group) == 0;
    if (isGiven && ::fchmodat(AT_FDCWD, mPath.c_str(), access.mode, AT_SYMLINK_NOFOLLOW) == 0)
        return;
    std::string const why = std::strerror(errno);
    ::unlink(mPath.c_str());
    throw std::runtime_error("cannot give the socket '" + mPath + "' its " +
                             (isGiven ? "mode" : "group") + ": " + why +
                             "; name a group of the user who runs this, or none");
}

std::optional<std::pair<dev_t, ino_t>> UnixListener::file() const {
    struct stat info {};
    if (::lstat(mPath.c_str(), &info) != 0) return std::nullopt;
    return std::pair{info.st_dev, info.st_ino};
}

UnixListener::~UnixListener() {
    if (mFile && mFile == file()) ::unlink(mPath.c_str());
}

}  // namespace vesk::hostkit
