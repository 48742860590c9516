#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <vesk/client/UnixConnect.h>

namespace vesk::client {

namespace {

constexpr size_t CHUNK_SIZE = size_t{64} * 1024;

int connectHost(std::string const& path, std::chrono::milliseconds limit) {
    try {
        return connectUnix(path, limit);
    } catch (std::system_error const& error) {
        if (error.code() == std::errc::timed_out) {
            throw std::runtime_error("the host at '" + path +
                                     "' does not accept; see whether it is stopped");
        }
        throw std::runtime_error("no host serves '" + path + "' (" + error.code().message() +
                                 "); start one with: vesk host --clients unix:" + path +
                                 " --channel ENDPOINT");
    }
}

// The credentials are those of the process that listens, from when it began to.
void checkOwner(int socket, std::string const& path) {
    ucred owner{};
    socklen_t size = sizeof owner;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &owner, &size) != 0 ||
        (owner.uid != ::geteuid() && owner.uid != 0)) {
        throw std::runtime_error("the host at '" + path + "' belongs to user " +
                                 std::to_string(owner.uid) + ", who could read every request; " +
                                 "allow any owner if that is meant");
    }
}

}  // namespace

Descriptor::~Descriptor() {
    reset();
}

void Descriptor::reset(int fd) {
    int const old = std::exchange(mFd, fd);
    if (old >= 0) ::close(old);
}

void Connection::open(std::string const& path, std::chrono::milliseconds limit, bool anyOwner) {
    mSocket.reset(connectHost(path, limit));
    if (!anyOwner) checkOwner(mSocket.get(), path);
    mChunk.resize(CHUNK_SIZE);
}

Connection::Result Connection::read(MessageReader& reader) {
    ssize_t const size = ::recv(mSocket.get(), mChunk.data(), mChunk.size(), MSG_DONTWAIT);
    if (size < 0) return failed();
    if (size == 0) {
        mWhyClosed = "it closed the connection";
        return Result::CLOSED;
    }
    reader.append(mChunk.data(), static_cast<size_t>(size));
    return Result::DONE;
}

Connection::Result Connection::write(Bytes& bytes, size_t& sent) {
    while (sent < bytes.size()) {
        ssize_t const size = ::send(mSocket.get(), bytes.data() + sent, bytes.size() - sent,
                                    MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size < 0) return failed();
        sent += static_cast<size_t>(size);
    }
    bytes.clear();
    sent = 0;
    return Result::DONE;
}

Connection::Result Connection::failed() {
    if (errno == EAGAIN || errno == EINTR) return Result::WOULD_BLOCK;
    mWhyClosed = std::strerror(errno);
    return Result::CLOSED;
}

}  // namespace vesk::client
