#pragma once

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <system_error>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace vesk::tool {

/**
 * Tells when stdin, a pipe or a terminal, can be read. It leaves stdin itself as it is: others
 * share it, and would find it non-blocking.
 *
 * Threads: the one that runs the io_context.
 */
class StdinWatch {
public:
    /** Throws std::system_error where stdin is a file: that can always be read. */
    explicit StdinWatch(asio::io_context& io) : mEpoll(io, ::epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        if (::epoll_ctl(mEpoll.native_handle(), EPOLL_CTL_ADD, STDIN_FILENO, &event) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot wait for stdin");
        }
    }

    /** Calls `ready` once, when there is something to read or the end. */
    void wait(std::function<void()> ready) {
        mEpoll.async_wait(asio::posix::descriptor_base::wait_read,
                          [ready = std::move(ready)](asio::error_code const& error) {
                              if (!error) ready();
                          });
    }

private:
    asio::posix::stream_descriptor mEpoll;
};

}  // namespace vesk::tool
