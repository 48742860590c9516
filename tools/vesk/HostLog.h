#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace vesk::tool {

/**
 * The host's lines to the person at the terminal, of which clients and the peer can cause as many
 * as they like: of one kind the first LINES in a second are said, the others only counted, and
 * their number is said at its end.
 *
 * Threads: the one that runs the io_context.
 */
class HostLog {
public:
    static constexpr size_t LINES = 10;

    explicit HostLog(asio::io_context& io) : mTimer(io) {}
    ~HostLog() { sumUp(); }
    HostLog(HostLog const&) = delete;
    HostLog& operator=(HostLog const&) = delete;

    /** Of one kind are lines with the same words in front of the first number or quotation. */
    void say(std::string const& line);

private:
    struct Kind {
        size_t count = 0;  // in this second
        std::string last;
    };

    void sumUp();

    asio::steady_timer mTimer;
    std::map<std::string, Kind> mKinds;  // those of which there was a line in this second
};

}  // namespace vesk::tool
