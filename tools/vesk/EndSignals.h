#pragma once

#include <csignal>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

namespace vesk::tool {

/**
 * The signals that end a command cleanly: SIGINT, SIGTERM and, as when its terminal is closed,
 * SIGHUP. That one stays ignored where it is, which is what nohup is for.
 */
class EndSignals : public asio::signal_set {
public:
    explicit EndSignals(asio::io_context& io) : asio::signal_set(io, SIGINT, SIGTERM) {
        struct sigaction now {};
        ::sigaction(SIGHUP, nullptr, &now);
        if (now.sa_handler != SIG_IGN) add(SIGHUP);
    }
};

}  // namespace vesk::tool
