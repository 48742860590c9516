#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include <vesk/VeskFrame.h>
#include <vesk/VeskSession.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "AcceptLoop.h"
#include "ClientConnection.h"
#include "ClientProtocol.h"
#include "UnixListener.h"

namespace vesk::tool {

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
class ClientServer : private ClientConnection::Owner {
public:
    struct Services {
        std::function<bool()> admitsFrame;      // whether one more frame may be sent to the peer
        std::function<void(bool)> holdChannel;  // whether to leave unread what the peer sends
        std::function<void(Counters&)> addCounters;  // fills in what the host knows
    };

    /** Throws std::runtime_error where it cannot listen on `path`. */
    ClientServer(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
                 Services services);

    /** Removes the sessions of all clients. */
    ~ClientServer();

    /** Offers the frames again that had to wait. Call it when there may be room. */
    void resumeParked();

    void deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame);
    void topicChanged(bool added, std::string const& topic);
    void providerChanged(bool added, std::string const& topic, std::string const& business);

private:
    struct Client {
        std::shared_ptr<ClientConnection> connection;
        std::shared_ptr<VeskSession> session;  // null until it has joined
        bool local = false;                    // the session's topic is
        bool watches = false;
    };

    bool onMessage(ClientConnection& connection, Message const& message) override;
    void onBadMessage(ClientConnection& connection, std::string const& reason) override;
    void onCongestion(ClientConnection& connection) override;
    void onClosed(ClientConnection& connection, std::string const& reason) override;

    void accepted(asio::local::stream_protocol::socket socket);
    void join(Client& client, Message const& message);
    std::string whyNoSession(JoinMessage const& join) const;
    bool publish(Client& client, Message const& message);
    bool hasRoomFor(Client const& sender) const;
    bool holdsUp(Client const& slow, Client const& sender) const;
    void park(Client const& client);
    void pollParked();
    void answer(Client& client, MessageType question);
    void watch(Client& client);
    void answerQuery(Client& client);
    void broadcast(Bytes const& message);
    void refuse(ClientConnection& connection, std::string const& reason);

    UnixListener mListener;
    AcceptLoop<asio::local::stream_protocol::acceptor> mAcceptLoop;
    std::set<std::string> const mLocalTopics;
    Services const mServices;
    std::unordered_map<uint32_t, Client> mClients;
    std::deque<uint32_t> mParked;  // clients whose next frame waits for room, longest wait first
    bool mResuming = false;
    std::set<uint32_t> mCongested;  // clients that are
    asio::steady_timer mParkedTimer;
    std::set<std::string> mTopics;
    std::multiset<std::pair<std::string, std::string>> mProviders;
    uint32_t mLastClientId = 0;
    uint64_t mRefused = 0;
    uint64_t mEvicted = 0;
};

}  // namespace vesk::tool
