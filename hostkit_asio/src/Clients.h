#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <vesk/VeskFrame.h>
#include <vesk/client/ClientProtocol.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <asio/io_context.hpp>

#include "AcceptLoop.h"
#include "Client.h"
#include "ClientConnection.h"
#include "FlowControl.h"
#include "Tappers.h"
#include "UnixListener.h"

namespace vesk::hostkit {

/** What is behind ClientServer, which see. */
class Clients : private ClientConnection::Owner {
public:
    using Services = ClientServer::Services;

    Clients(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
            FlowLimits const& limits, Services services);
    ~Clients();
    void resume() { mFlow.resume(); }
    void deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame);
    void topicChanged(bool added, std::string const& topic);
    void providerChanged(bool added, std::string const& topic, std::string const& business);
    void announce(std::string const& text);

private:
    bool onMessage(ClientConnection& connection, client::Message const& message) override;
    bool onPart(ClientConnection& connection, size_t size) override;
    void onBadMessage(ClientConnection& connection, std::string const& reason) override;
    void onBacklog(ClientConnection& connection) override;
    void onClosed(ClientConnection& connection, std::string const& reason) override;

    void accepted(asio::local::stream_protocol::socket socket);
    bool makePlace();
    void join(Client& client, client::Message const& message);
    std::string whyNoSession(client::JoinMessage const& join) const;
    void takeOver(Client const& client);
    void giveBack(Client const& client);
    void tell(uint32_t clientId, std::string const& text);
    void publish(Client& client, client::Message const& message);
    void watch(Client& client);
    void answerQuery(Client& client);
    void answerStatus(Client& client, client::Message const& message);
    void tap(Client& client, client::Message const& message);
    std::vector<HostStatus::SlowClient> slowClients() const;
    void broadcast(client::Bytes const& message);
    void send(ClientConnection& connection, client::Bytes message);
    void refuse(ClientConnection& connection, std::string const& reason);

    UnixListener mListener;
    AcceptLoop<asio::local::stream_protocol::acceptor> mAcceptLoop;
    std::set<std::string> const mLocalTopics;
    FlowLimits const mLimits;
    Services const mServices;
    std::shared_ptr<ClientConnection::Shared> const mShared =
            std::make_shared<ClientConnection::Shared>();
    ClientTable mClients;
    FlowControl mFlow;
    Tappers mTappers;
    std::set<std::string> mTopics;
    std::multiset<std::pair<std::string, std::string>> mProviders;
    uint32_t mLastClientId = 0;
    uint64_t mRefused = 0;
    uint64_t mEvicted = 0;
};

}  // namespace vesk::hostkit
