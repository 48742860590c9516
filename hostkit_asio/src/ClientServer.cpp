#include <vesk/hostkit_asio/ClientServer.h>

#include <utility>

#include "Clients.h"

namespace vesk::hostkit {

class ClientServer::Impl final : public Clients {
public:
    using Clients::Clients;
};

ClientServer::ClientServer(asio::io_context& io, std::string const& path,
                           std::set<std::string> localTopics, FlowLimits const& limits,
                           Services services)
    : mImpl(std::make_unique<Impl>(io, path, std::move(localTopics), limits, std::move(services))) {
}

ClientServer::~ClientServer() = default;

void ClientServer::resume() {
    mImpl->resume();
}

void ClientServer::deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame) {
    mImpl->deliver(clientId, sessionId, frame);
}

void ClientServer::topicChanged(bool added, std::string const& topic) {
    mImpl->topicChanged(added, topic);
}

void ClientServer::providerChanged(bool added, std::string const& topic,
                                   std::string const& business) {
    mImpl->providerChanged(added, topic, business);
}

void ClientServer::announce(std::string const& text) {
    mImpl->announce(text);
}

}  // namespace vesk::hostkit
