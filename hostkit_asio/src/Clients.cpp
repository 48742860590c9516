#include "Clients.h"

#include <algorithm>

#include <vesk/Vesk.h>
#include <vesk/hostkit/CatalogueNames.h>

namespace vesk::hostkit {

namespace {

// Room also comes without an event, by the expiry of what was never acknowledged.
constexpr std::chrono::milliseconds PARKED_POLL{10};

char const* roleName(int role) {
    return role == VeskSessionManager::PROVIDER ? "provider" : "consumer";
}

}  // namespace

Clients::Clients(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
                 Services services)
    : mListener(io, path),
      mAcceptLoop(
              mListener.acceptor(), [this](auto socket) { accepted(std::move(socket)); },
              services.report),
      mLocalTopics(std::move(localTopics)),
      mServices(std::move(services)),
      mParkedTimer(io) {}

Clients::~Clients() {
    for (auto const& [id, client] : mClients) {
        Vesk::getInstance()->getSessionManager()->removeSessionByClient(id);
    }
}

void Clients::accepted(asio::local::stream_protocol::socket socket) {
    uint32_t const id = ++mLastClientId;
    ClientConnection::Owner& owner = *this;
    auto const connection = std::make_shared<ClientConnection>(id, std::move(socket), owner);
    mClients[id].connection = connection;
    connection->start();
}

bool Clients::onMessage(ClientConnection& connection, client::Message const& message) {
    Client& client = mClients.at(connection.id());
    switch (message.type) {
        case client::MessageType::JOIN:
            join(client, message);
            return true;
        case client::MessageType::REQUEST:
        case client::MessageType::REPLY:
            return publish(client, message);
        case client::MessageType::WATCH:
        case client::MessageType::QUERY:
            answer(client, message.type);
            return true;
        default:
            refuse(connection, "a client does not send messages of type " +
                                       std::to_string(static_cast<int>(message.type)));
            return true;
    }
}

void Clients::onBadMessage(ClientConnection& connection, std::string const& reason) {
    refuse(connection, reason);
}

void Clients::refuse(ClientConnection& connection, std::string const& reason) {
    ++mRefused;
    mServices.report("refused client " + std::to_string(connection.id()) + ": " + reason);
    connection.refuse(reason);
}

void Clients::onCongestion(ClientConnection& connection) {
    uint32_t const changed = connection.id();
    connection.congested() ? (void)mCongested.insert(changed) : (void)mCongested.erase(changed);
    mServices.holdChannel(std::any_of(mCongested.begin(), mCongested.end(), [this](uint32_t id) {
        Client const& client = mClients.at(id);
        return client.session && !client.local && client.connection->holds();
    }));
}

void Clients::onClosed(ClientConnection& connection, std::string const& reason) {
    auto const found = mClients.find(connection.id());
    Client const client = std::move(found->second);
    mClients.erase(found);
    if (connection.evicted()) ++mEvicted;
    // A client that came for a look and leaves as it should is not worth a line.
    if (client.session || connection.evicted()) {
        mServices.report("client " + std::to_string(connection.id()) + " is gone: " + reason);
    }
    Vesk::getInstance()->getSessionManager()->removeSessionByClient(connection.id());
}

void Clients::join(Client& client, client::Message const& message) {
    std::optional<client::JoinMessage> const join = client::JoinMessage::decode(message.body);
    if (!join) return refuse(*client.connection, "a JOIN message is not of its form");
    if (client.session) return refuse(*client.connection, "this client has joined already");
    std::string const why = whyNoSession(*join);
    if (!why.empty()) return refuse(*client.connection, why);

    VeskSessionManager& sessions = *Vesk::getInstance()->getSessionManager();
    uint32_t const id = client.connection->id();
    int const sessionId = sessions.createSession(static_cast<int>(id), join->role, join->topic,
                                                 join->business, false);
    if (sessionId < 0) return refuse(*client.connection, "every session id is in use");
    client.session = sessions.getSession(static_cast<uint16_t>(sessionId));
    client.local = mLocalTopics.count(join->topic) > 0;
    mServices.report("client " + std::to_string(id) + " is a " + roleName(join->role) + " of " +
                     join->topic + "/" + join->business + ", session " + std::to_string(sessionId));
    client.connection->send(client::JoinedMessage{static_cast<uint16_t>(sessionId)}.encode());
}

std::string Clients::whyNoSession(client::JoinMessage const& join) const {
    VeskConfig const& catalogue = *Vesk::getInstance()->getConfig();
    int const topicId = catalogue.getTopicIdByName(join.topic);
    if (join.role != VeskSessionManager::CONSUMER && join.role != VeskSessionManager::PROVIDER) {
        return "a client joins as consumer (1) or provider (2), not as " +
               std::to_string(join.role);
    }
    if (topicId < 1) {
        return "there is no topic '" + join.topic +
               "'; the known ones are: " + joinNames(topicNames(catalogue));
    }
    if (mTopics.count(join.topic) == 0) {
        return "this host does not serve the topic '" + join.topic +
               "'; it serves: " + joinNames({mTopics.begin(), mTopics.end()});
    }
    if (catalogue.getBussinessIdByName(topicId, join.business) < 1) {
        return "the topic '" + join.topic + "' has no business '" + join.business +
               "'; the known ones are: " + joinNames(businessNames(catalogue, join.topic));
    }
    return {};
}

// A consumer's request carries its own session id, so that the reply finds its way back.
bool Clients::publish(Client& client, client::Message const& message) {
    bool const request = message.type == client::MessageType::REQUEST;
    int const role = request ? VeskSessionManager::CONSUMER : VeskSessionManager::PROVIDER;
    if (!client.session || client.session->type() != role) {
        refuse(*client.connection, std::string("only a ") + roleName(role) +
                                           (request ? " sends requests" : " sends replies"));
        return true;
    }
    bool const others = !mResuming && !client.local && !mParked.empty();
    if (others || !hasRoomFor(client)) {
        park(client);
        return false;
    }
    std::optional<client::DataMessage> data = client::DataMessage::decode(message.body);
    if (!data) {
        refuse(*client.connection, "a REQUEST or REPLY message is not of its form");
        return true;
    }
    std::shared_ptr<VeskFrame> const frame = VeskFrame::obtainFrame(true);
    frame->topicId = static_cast<uint8_t>(client.session->topicId());
    frame->businessId = static_cast<uint8_t>(client.session->businessId());
    frame->msgType = request ? REQUEST : REPLY;
    frame->reply = request ? client.session->sessionId() : data->session;
    frame->msgId = data->msgId;
    frame->data = std::move(data->payload);
    client.session->send(client.local, frame, 1);
    return true;
}

bool Clients::hasRoomFor(Client const& sender) const {
    if (!sender.local && !mServices.admitsFrame()) return false;
    return std::none_of(mCongested.begin(), mCongested.end(),
                        [&](uint32_t id) { return holdsUp(mClients.at(id), sender); });
}

// A provider that is parked waits until its replies can leave; requests would bury it meanwhile,
// here or, where two hosts wait for each other, at the peer. A consumer that is parked waits for
// providers, whose replies it has to take.
bool Clients::holdsUp(Client const& slow, Client const& sender) const {
    if (!slow.session || &slow == &sender || slow.local != sender.local) return false;
    bool const request = sender.session->type() == VeskSessionManager::CONSUMER;
    if (slow.session->type() == VeskSessionManager::PROVIDER) {
        return request && slow.connection->congested();
    }
    return (request || sender.local) && slow.connection->holds();
}

void Clients::park(Client const& client) {
    mParked.push_back(client.connection->id());
    if (mParked.size() == 1) pollParked();
}

// Who has waited longest goes first, and behind the others when it has more than there is room for.
void Clients::resumeParked() {
    std::deque<uint32_t> parked;
    std::deque<uint32_t> waiting;
    parked.swap(mParked);
    mResuming = true;
    for (uint32_t id : parked) {
        auto const found = mClients.find(id);
        if (found == mClients.end()) continue;
        if (!hasRoomFor(found->second)) {
            waiting.push_back(id);
            continue;
        }
        std::shared_ptr<ClientConnection> const connection = found->second.connection;
        connection->resume();
    }
    mResuming = false;
    mParked.insert(mParked.begin(), waiting.begin(), waiting.end());
    if (!mParked.empty()) pollParked();
}

void Clients::pollParked() {
    mParkedTimer.expires_after(PARKED_POLL);
    mParkedTimer.async_wait([this](asio::error_code const& error) {
        if (!error) resumeParked();
    });
}

// Unlike requests, questions would let a client that does not read pile up answers at once.
void Clients::answer(Client& client, client::MessageType question) {
    if (client.connection->congested()) {
        return refuse(*client.connection, "read what waits for this client before asking for more");
    }
    question == client::MessageType::WATCH ? watch(client) : answerQuery(client);
}

void Clients::watch(Client& client) {
    if (client.watches) return;
    client.watches = true;
    for (std::string const& topic : mTopics) {
        client.connection->send(
                client::ChangeMessage{true, topic, {}}.encode(client::MessageType::TOPIC));
    }
    for (auto const& [topic, business] : mProviders) {
        client.connection->send(
                client::ChangeMessage{true, topic, business}.encode(client::MessageType::PROVIDER));
    }
}

void Clients::answerQuery(Client& client) {
    client::Counters counters;
    counters.clients = mClients.size();
    counters.providers = mProviders.size();
    counters.refused = mRefused;
    counters.evicted = mEvicted;
    mServices.addCounters(counters);
    client.connection->send(counters.encode());
}

void Clients::deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame) {
    auto const found = mClients.find(clientId);
    if (found == mClients.end()) return;
    bool const request = frame.msgType == REQUEST;
    uint16_t const session = request ? frame.reply : static_cast<uint16_t>(sessionId);
    client::MessageType const type =
            request ? client::MessageType::REQUEST : client::MessageType::REPLY;
    found->second.connection->send(
            client::DataMessage::encode(type, session, frame.msgId, frame.data));
}

void Clients::topicChanged(bool added, std::string const& topic) {
    added ? (void)mTopics.insert(topic) : (void)mTopics.erase(topic);
    broadcast(client::ChangeMessage{added, topic, {}}.encode(client::MessageType::TOPIC));
}

void Clients::providerChanged(bool added, std::string const& topic, std::string const& business) {
    if (added) {
        mProviders.emplace(topic, business);
    } else if (auto const found = mProviders.find({topic, business}); found != mProviders.end()) {
        mProviders.erase(found);
    }
    broadcast(client::ChangeMessage{added, topic, business}.encode(client::MessageType::PROVIDER));
}

void Clients::broadcast(client::Bytes const& message) {
    for (auto const& [id, client] : mClients) {
        if (client.watches) client.connection->send(message);
    }
}

}  // namespace vesk::hostkit
