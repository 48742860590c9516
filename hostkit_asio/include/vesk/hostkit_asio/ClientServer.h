#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include <vesk/VeskFrame.h>
#include <vesk/client/ClientProtocol.h>
#include <vesk/hostkit_asio/Report.h>
#include <asio/io_context.hpp>

namespace vesk::hostkit {

/**
 * The local clients of a host: accepts them, makes and removes their sessions, carries their frames
 * into the library and the library's deliveries to them.
 *
 * Back-pressure: a client that holds stops what brings its deliveries, so one slow client slows
 * the others, for as long as ClientConnection is patient with it, and none of them loses anything.
 * The channel stands still while one of its clients holds. A request waits while a provider is
 * congested or another consumer holds, and on a local topic a reply while a consumer holds; local
 * topics and the channel do not wait for each other. So replies go before requests, which is what
 * drains the providers; and where two wait for each other, be it on two hosts, both are parked,
 * and both let go.
 *
 * Threads: the one that runs the io_context; the library's deliveries and notifications arrive on
 * it as well, because this thread is the only one that feeds and manages the library.
 */
class ClientServer {
public:
    struct Services {
        std::function<bool()> admitsFrame;      // whether one more frame may be sent to the peer
        std::function<void(bool)> holdChannel;  // whether to leave unread what the peer sends
        std::function<void(client::Counters&)> addCounters;  // fills in what the host knows
        Report report;
    };

    /** Throws std::runtime_error where it cannot listen on `path`. */
    ClientServer(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
                 Services services);

    /** Removes the sessions of all clients. */
    ~ClientServer();
    ClientServer(ClientServer const&) = delete;
    ClientServer& operator=(ClientServer const&) = delete;

    /** Offers the frames again that had to wait. Call it when there may be room. */
    void resumeParked();

    void deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame);
    void topicChanged(bool added, std::string const& topic);
    void providerChanged(bool added, std::string const& topic, std::string const& business);

private:
    class Impl;
    std::unique_ptr<Impl> const mImpl;
};

}  // namespace vesk::hostkit
