#pragma once

#include <chrono>

#include <asio/io_context.hpp>

namespace vesk::e2e {

/**
 * Stops the clock of Asio's timers, as long as this object lives, and puts it forward. What waits
 * with a limit (Scene::await) would wait for ever meanwhile.
 *
 * Threads: one at a time has such an object.
 */
class SteadyTime {
public:
    explicit SteadyTime(asio::io_context& io);
    ~SteadyTime();
    SteadyTime(SteadyTime const&) = delete;
    SteadyTime& operator=(SteadyTime const&) = delete;

    /** Runs everything that is to be done by then. */
    void advance(int millis);

    /** Runs everything that is to be done now. */
    void settle();

private:
    asio::io_context& mIo;
};

}  // namespace vesk::e2e
