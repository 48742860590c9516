#include "ClientServer.h"

#include <algorithm>

#include <vesk/Vesk.h>

#include "BusinessName.h"
#include "Errors.h"

namespace vesk::tool {

namespace {

constexpr uint8_t TYPE_REQUEST = 2;
constexpr uint8_t TYPE_REPLY = 3;

// Room also comes without an event, by the expiry of what was never acknowledged.
constexpr std::chrono::milliseconds PARKED_POLL{10};

char const* roleName(int role) {
    return role == VeskSessionManager::PROVIDER ? "provider" : "consumer";
}

}  // namespace

ClientServer::ClientServer(asio::io_context& io, std::string const& path,
                           std::set<std::string> localTopics, Services services)
    : mListener(io, path),
      mAcceptLoop(mListener.acceptor(), [this](auto socket) { accepted(std::move(socket)); }),
      mLocalTopics(std::move(localTopics)),
      mServices(std::move(services)),
      mParkedTimer(io) {}

ClientServer::~ClientServer() {
    for (auto const& [id, client] : mClients) {
        Vesk::getInstance()->getSessionManager()->removeSessionByClient(id);
    }
}

void ClientServer::accepted(asio::local::stream_protocol::socket socket) {
    uint32_t const id = ++mLastClientId;
    ClientConnection::Owner& owner = *this;
    auto const connection = std::make_shared<ClientConnection>(id, std::move(socket), owner);
    mClients[id].connection = connection;
    connection->start();
}

bool ClientServer::onMessage(ClientConnection& connection, Message const& message) {
    Client& client = mClients.at(connection.id());
    switch (message.type) {
        case MessageType::JOIN:
            join(client, message);
            return true;
        case MessageType::REQUEST:
        case MessageType::REPLY:
            return publish(client, message);
        case MessageType::WATCH:
        case MessageType::QUERY:
            answer(client, message.type);
            return true;
        default:
            refuse(connection, "a client does not send messages of type " +
                                       std::to_string(static_cast<int>(message.type)));
            return true;
    }
}

void ClientServer::onBadMessage(ClientConnection& connection, std::string const& reason) {
    refuse(connection, reason);
}

void ClientServer::refuse(ClientConnection& connection, std::string const& reason) {
    ++mRefused;
    say("refused client " + std::to_string(connection.id()) + ": " + reason);
    connection.refuse(reason);
}

void ClientServer::onCongestion(ClientConnection& connection) {
    uint32_t const changed = connection.id();
    connection.congested() ? (void)mCongested.insert(changed) : (void)mCongested.erase(changed);
    mServices.holdChannel(std::any_of(mCongested.begin(), mCongested.end(), [this](uint32_t id) {
        Client const& client = mClients.at(id);
        return client.session && !client.local && client.connection->holds();
    }));
}

void ClientServer::onClosed(ClientConnection& connection, std::string const& reason) {
    auto const found = mClients.find(connection.id());
    Client const client = std::move(found->second);
    mClients.erase(found);
    if (connection.evicted()) ++mEvicted;
    // A client that came for a look and leaves as it should is not worth a line.
    if (client.session || connection.evicted()) {
        say("client " + std::to_string(connection.id()) + " is gone: " + reason);
    }
    Vesk::getInstance()->getSessionManager()->removeSessionByClient(connection.id());
}

void ClientServer::join(Client& client, Message const& message) {
    std::optional<JoinMessage> const join = JoinMessage::decode(message.body);
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
    say("client " + std::to_string(id) + " is a " + roleName(join->role) + " of " + join->topic +
        "/" + join->business + ", session " + std::to_string(sessionId));
    client.connection->send(JoinedMessage{static_cast<uint16_t>(sessionId)}.encode());
}

std::string ClientServer::whyNoSession(JoinMessage const& join) const {
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
bool ClientServer::publish(Client& client, Message const& message) {
    bool const request = message.type == MessageType::REQUEST;
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
    std::optional<DataMessage> data = DataMessage::decode(message.body);
    if (!data) {
        refuse(*client.connection, "a REQUEST or REPLY message is not of its form");
        return true;
    }
    std::shared_ptr<VeskFrame> const frame = VeskFrame::obtainFrame(true);
    frame->topicId = static_cast<uint8_t>(client.session->topicId());
    frame->businessId = static_cast<uint8_t>(client.session->businessId());
    frame->msgType = request ? TYPE_REQUEST : TYPE_REPLY;
    frame->reply = request ? client.session->sessionId() : data->session;
    frame->msgId = data->msgId;
    frame->data = std::move(data->payload);
    client.session->send(client.local, frame, 1);
    return true;
}

bool ClientServer::hasRoomFor(Client const& sender) const {
    if (!sender.local && !mServices.admitsFrame()) return false;
    return std::none_of(mCongested.begin(), mCongested.end(),
                        [&](uint32_t id) { return holdsUp(mClients.at(id), sender); });
}

// A provider that is parked waits until its replies can leave; requests would bury it meanwhile,
// here or, where two hosts wait for each other, at the peer. A consumer that is parked waits for
// providers, whose replies it has to take.
bool ClientServer::holdsUp(Client const& slow, Client const& sender) const {
    if (!slow.session || &slow == &sender || slow.local != sender.local) return false;
    bool const request = sender.session->type() == VeskSessionManager::CONSUMER;
    if (slow.session->type() == VeskSessionManager::PROVIDER) {
        return request && slow.connection->congested();
    }
    return (request || sender.local) && slow.connection->holds();
}

void ClientServer::park(Client const& client) {
    mParked.push_back(client.connection->id());
    if (mParked.size() == 1) pollParked();
}

// Who has waited longest goes first, and behind the others when it has more than there is room for.
void ClientServer::resumeParked() {
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

void ClientServer::pollParked() {
    mParkedTimer.expires_after(PARKED_POLL);
    mParkedTimer.async_wait([this](asio::error_code const& error) {
        if (!error) resumeParked();
    });
}

// Unlike requests, questions would let a client that does not read pile up answers at once.
void ClientServer::answer(Client& client, MessageType question) {
    if (client.connection->congested()) {
        return refuse(*client.connection, "read what waits for this client before asking for more");
    }
    question == MessageType::WATCH ? watch(client) : answerQuery(client);
}

void ClientServer::watch(Client& client) {
    if (client.watches) return;
    client.watches = true;
    for (std::string const& topic : mTopics) {
        client.connection->send(ChangeMessage{true, topic, {}}.encode(MessageType::TOPIC));
    }
    for (auto const& [topic, business] : mProviders) {
        client.connection->send(ChangeMessage{true, topic, business}.encode(MessageType::PROVIDER));
    }
}

void ClientServer::answerQuery(Client& client) {
    Counters counters;
    counters.clients = mClients.size();
    counters.providers = mProviders.size();
    counters.refused = mRefused;
    counters.evicted = mEvicted;
    mServices.addCounters(counters);
    client.connection->send(counters.encode());
}

void ClientServer::deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame) {
    auto const found = mClients.find(clientId);
    if (found == mClients.end()) return;
    bool const request = frame.msgType == TYPE_REQUEST;
    uint16_t const session = request ? frame.reply : static_cast<uint16_t>(sessionId);
    MessageType const type = request ? MessageType::REQUEST : MessageType::REPLY;
    found->second.connection->send(DataMessage::encode(type, session, frame.msgId, frame.data));
}

void ClientServer::topicChanged(bool added, std::string const& topic) {
    added ? (void)mTopics.insert(topic) : (void)mTopics.erase(topic);
    broadcast(ChangeMessage{added, topic, {}}.encode(MessageType::TOPIC));
}

void ClientServer::providerChanged(bool added, std::string const& topic,
                                   std::string const& business) {
    if (added) {
        mProviders.emplace(topic, business);
    } else if (auto const found = mProviders.find({topic, business}); found != mProviders.end()) {
        mProviders.erase(found);
    }
    broadcast(ChangeMessage{added, topic, business}.encode(MessageType::PROVIDER));
}

void ClientServer::broadcast(Bytes const& message) {
    for (auto const& [id, client] : mClients) {
        if (client.watches) client.connection->send(message);
    }
}

}  // namespace vesk::tool
