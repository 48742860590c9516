#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include <vesk/VeskFrame.h>
#include <vesk/VeskSession.h>
#include <vesk/client/ClientProtocol.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "AcceptLoop.h"
#include "ClientConnection.h"
#include "UnixListener.h"

namespace vesk::hostkit {

/** What is behind ClientServer, which see. */
class Clients : private ClientConnection::Owner {
public:
    using Services = ClientServer::Services;

    Clients(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
            Services services);
    ~Clients();
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

    bool onMessage(ClientConnection& connection, client::Message const& message) override;
    void onBadMessage(ClientConnection& connection, std::string const& reason) override;
    void onCongestion(ClientConnection& connection) override;
    void onClosed(ClientConnection& connection, std::string const& reason) override;

    void accepted(asio::local::stream_protocol::socket socket);
    void join(Client& client, client::Message const& message);
    std::string whyNoSession(client::JoinMessage const& join) const;
    bool publish(Client& client, client::Message const& message);
    bool hasRoomFor(Client const& sender) const;
    bool holdsUp(Client const& slow, Client const& sender) const;
    void park(Client const& client);
    void pollParked();
    void answer(Client& client, client::MessageType question);
    void watch(Client& client);
    void answerQuery(Client& client);
    void broadcast(client::Bytes const& message);
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

}  // namespace vesk::hostkit
