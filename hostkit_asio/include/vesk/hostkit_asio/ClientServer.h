#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include <vesk/VeskFrame.h>
#include <vesk/client/ClientProtocol.h>
#include <vesk/hostkit/HostStatus.h>
#include <vesk/hostkit/SendGate.h>
#include <vesk/hostkit_asio/FlowLimits.h>
#include <vesk/hostkit_asio/Report.h>
#include <vesk/hostkit_asio/SocketAccess.h>
#include <vesk/hostkit_asio/Tap.h>
#include <asio/io_context.hpp>

namespace vesk::hostkit {

/**
 * The local clients of a host: accepts them, makes and removes their sessions, carries their frames
 * into the library and the library's deliveries to them.
 *
 * Several providers of one business: the one that joined last gets the requests, whichever session
 * the library chooses; when it leaves, the one before it gets them again. Both are told,
 * where they have asked for notices.
 *
 * Flow control: each client slows only itself, and what is kept for all of them together has a
 * bound. What a client may expect is said in client/ClientProtocol.h, how the memory is divided in
 * FlowLimits.h. The channel is held back only while a provider, or memory, has no room for what the
 * peer sends, which ends soon because the slowest client is disconnected then.
 *
 * Threads: the one that runs the io_context; the library's deliveries and notifications arrive on
 * it as well, because this thread is the only one that feeds and manages the library.
 */
class ClientServer {
public:
    struct Services {
        std::function<SendGate::Obstacle()> obstacle;  // to one more frame for the peer
        std::function<void(bool)> holdChannel;  // whether to leave unread what the peer sends
        std::function<void(client::Counters&)> addCounters;  // fills in what the host knows
        /** All but what this class knows itself: slow clients, local topics. Empty: not told. */
        std::function<HostStatus()> status;
        Report report;
        bool joins = true;  // false: clients may only look; the library is not asked for sessions
        SocketAccess access = {};  // to the socket for the clients
        Tap* tap = nullptr;        // not owned, must outlive the server; null: clients cannot tap
    };

    /** Throws std::runtime_error where it cannot listen on `path`. */
    ClientServer(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
                 FlowLimits const& limits, Services services);

    /** Removes the sessions of all clients. */
    ~ClientServer();
    ClientServer(ClientServer const&) = delete;
    ClientServer& operator=(ClientServer const&) = delete;

    /** Lets paused clients go on. To be called when the channel may have room for more. */
    void resume();

    void deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame);
    void topicChanged(bool added, std::string const& topic);
    void providerChanged(bool added, std::string const& topic, std::string const& business);

    /** Tells the clients that watch, and have asked for notices, what a person may want to know. */
    void announce(std::string const& text);

private:
    class Impl;
    std::unique_ptr<Impl> const mImpl;
};

}  // namespace vesk::hostkit
