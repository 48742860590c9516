#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vesk/hostkit_asio/ChannelWatcher.h>
#include <vesk/hostkit_asio/Endpoint.h>
#include <vesk/hostkit_asio/FlowLimits.h>
#include <vesk/hostkit_asio/Report.h>
#include <vesk/hostkit_asio/SocketAccess.h>
#include <asio/io_context.hpp>

namespace vesk::hostkit {

/**
 * A whole host: the library between one byte channel and many local clients. One for each process,
 * as the library is, whose callback this installs.
 *
 * Threads: construction, destruction and everything in between on the one thread that runs the
 *          io_context. The library's looper is the only other one, and reaches no further than the
 *          channel's outbox. Other uses of the library in the same process belong on this thread
 *          too.
 * Signals: SIGPIPE is to be ignored, so that a peer that is gone shows as an error of the write.
 */
class Host {
public:
    struct Options {
        Endpoint channel;
        bool listen = false;  // wait for the peer instead of connecting to it

        /** The path of the socket for local clients. */
        std::string clients;

        /** Who may connect to the sockets that it creates: this user alone by default. */
        SocketAccess access = {};

        /** Topics to serve with the peer, and among local clients only; with none, all with it. */
        std::vector<std::string> topics = {};
        std::vector<std::string> localTopics = {};

        /** How much it may hold for others: 64 MiB by default. */
        FlowLimits limits = FlowLimits();

        Report report;

        /** The channel was stdio:, and has ended for good. Must not destroy the host. */
        std::function<void()> onEnd;

        /** Sees what the channel carries. Not owned; must outlive the host. */
        ChannelWatcher* watcher = nullptr;
    };

    /**
     * Serves from now on, as far as the io_context is run.
     *
     * Throws std::invalid_argument for what cannot be, such as a topic that the catalogue has not,
     * and std::runtime_error where it cannot listen.
     */
    Host(asio::io_context& io, Options options);

    /** Takes leave of all clients. The io_context must not be run any more afterwards. */
    ~Host();
    Host(Host const&) = delete;
    Host& operator=(Host const&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> const mImpl;
};

}  // namespace vesk::hostkit
