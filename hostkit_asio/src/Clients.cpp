#include "Clients.h"

#include <algorithm>
#include <chrono>

#include <vesk/Vesk.h>
#include <vesk/client/BusinessName.h>
#include <vesk/hostkit/CatalogueNames.h>

namespace vesk::hostkit {

namespace {

// A JOIN with the longest names; nothing longer is expected from who has not joined.
constexpr size_t MAX_JOIN_SIZE = client::MessageReader::PREFIX_SIZE + 1 + 1 + 256 + 256;

void removeSession(uint32_t clientId) {
    Vesk::getInstance()->getSessionManager()->removeSessionByClient(clientId);
}

// For whom something has waited for so long, that one does not read.
constexpr std::chrono::milliseconds SLOW{1000};

std::string nameOf(VeskSession const& session) {
    VeskConfig const& catalogue = *Vesk::getInstance()->getConfig();
    return client::BusinessName{
            catalogue.getTopicIdById(session.topicId()),
            catalogue.getBussinessIdById(session.topicId(), session.businessId())}
            .toString();
}

char const* roleName(int role) {
    return role == VeskSessionManager::PROVIDER ? "provider" : "consumer";
}

}  // namespace

Clients::Clients(asio::io_context& io, std::string const& path, std::set<std::string> localTopics,
                 FlowLimits const& limits, Services services)
    : mListener(io, path, services.access),
      mAcceptLoop(
              mListener.acceptor(), [this](auto socket) { accepted(std::move(socket)); },
              services.report),
      mLocalTopics(std::move(localTopics)),
      mLimits(limits),
      mServices(std::move(services)),
      mFlow(io, mLimits, mServices, mClients, mShared->backlog),
      mTappers(io, mServices.tap) {}

Clients::~Clients() {
    for (auto& [id, client] : mClients) {
        client.unanswered.reset();  // it counts in what mFlow holds, which goes before the clients
        if (client.session) removeSession(id);
    }
}

void Clients::accepted(asio::local::stream_protocol::socket socket) {
    bool const hasPlace = makePlace();
    uint32_t const id = ++mLastClientId;
    ClientConnection::Owner& owner = *this;
    auto const connection = std::make_shared<ClientConnection>(id, std::move(socket), owner,
                                                               mShared, mLimits.client);
    mClients[id].connection = connection;
    if (hasPlace) return connection->start();
    refuse(*connection, "this host has as many clients as it serves at a time; try again later");
}

// Who only looks in, or has not said why it came, makes place for who comes now.
bool Clients::makePlace() {
    if (mClients.size() < FlowLimits::CLIENTS) return true;
    Client* idlest = nullptr;
    for (auto& [id, client] : mClients) {
        if (client.joined() || client.watches || client.connection->closed()) continue;
        if (!idlest || id < idlest->connection->id()) idlest = &client;
    }
    if (idlest) idlest->connection->close("another client needs its place");
    return idlest != nullptr;
}

bool Clients::onMessage(ClientConnection& connection, client::Message const& message) {
    Client& client = mClients.at(connection.id());
    bool const isData = message.type == client::MessageType::REQUEST ||
                        message.type == client::MessageType::REPLY;
    if (!mFlow.admits(client, isData)) return false;
    mFlow.releasePart(client);
    switch (message.type) {
        case client::MessageType::JOIN:
            join(client, message);
            break;
        case client::MessageType::REQUEST:
        case client::MessageType::REPLY:
            publish(client, message);
            break;
        case client::MessageType::WATCH:
        case client::MessageType::QUERY:
            if (!message.body.empty()) {
                refuse(connection, "a QUERY or WATCH message is not of its form");
            } else {
                message.type == client::MessageType::WATCH ? watch(client) : answerQuery(client);
            }
            break;
        case client::MessageType::NOTIFY:
            client.notified = true;
            if (!message.body.empty()) refuse(connection, "a NOTIFY message is not of its form");
            break;
        case client::MessageType::STATUS:
            answerStatus(client, message);
            break;
        case client::MessageType::TAP:
            tap(client, message);
            break;
        default:
            refuse(connection, "a client does not send messages of type " +
                                       std::to_string(static_cast<int>(message.type)));
    }
    return true;
}

bool Clients::onPart(ClientConnection& connection, size_t size) {
    Client& client = mClients.at(connection.id());
    if (client.joined() || size <= MAX_JOIN_SIZE) return mFlow.admitsPart(client);
    refuse(connection, "a client joins before it sends messages of such length");
    return true;
}

void Clients::onBadMessage(ClientConnection& connection, std::string const& reason) {
    refuse(connection, reason);
}

void Clients::refuse(ClientConnection& connection, std::string const& reason) {
    ++mRefused;
    mServices.report("refused client " + std::to_string(connection.id()) + ": " + reason);
    connection.refuse(reason);
}

void Clients::onBacklog(ClientConnection& connection) {
    mFlow.backlogChanged(mClients.at(connection.id()));
}

void Clients::onClosed(ClientConnection& connection, std::string const& reason) {
    auto const entry = mClients.extract(connection.id());
    Client& client = entry.mapped();
    bool const hadRequests =
            client.provides() && client.business->providers.back() == connection.id();
    mFlow.left(client);
    mTappers.left(connection.id());
    if (connection.evicted()) ++mEvicted;
    // A client that came for a look and leaves as it should is not worth a line.
    if (client.session || connection.evicted()) {
        std::string const line =
                "client " + std::to_string(connection.id()) + " is gone: " + reason;
        mServices.report(line);
        announce(line);
    }
    if (client.session) removeSession(connection.id());
    if (hadRequests) giveBack(client);
}

void Clients::join(Client& client, client::Message const& message) {
    std::optional<client::JoinMessage> const join = client::JoinMessage::decode(message.body);
    if (!join) return refuse(*client.connection, "a JOIN message is not of its form");
    if (client.session) return refuse(*client.connection, "this client has joined already");
    std::string const why = mServices.joins ? whyNoSession(*join)
                                            : "this host takes no clients; it can only be watched";
    if (!why.empty()) return refuse(*client.connection, why);

    VeskSessionManager& sessions = *Vesk::getInstance()->getSessionManager();
    uint32_t const id = client.connection->id();
    int const sessionId = sessions.createSession(static_cast<int>(id), join->role, join->topic,
                                                 join->business, false);
    if (sessionId < 0) return refuse(*client.connection, "every session id is in use");
    client.session = sessions.getSession(static_cast<uint16_t>(sessionId));
    client.local = mLocalTopics.count(join->topic) > 0;
    mFlow.joined(client);
    std::string const line = "client " + std::to_string(id) + " is a " + roleName(join->role) +
                             " of " + nameOf(*client.session) + ", session " +
                             std::to_string(sessionId);
    mServices.report(line);
    announce(line);
    send(*client.connection, client::JoinedMessage{static_cast<uint16_t>(sessionId)}.encode());
    if (client.provides()) takeOver(client);
}

// Its business has another provider: what that means is told to all whom it concerns.
void Clients::takeOver(Client const& client) {
    std::vector<uint32_t> const& providers = client.business->providers;
    if (providers.size() < 2) return;
    uint32_t const before = providers[providers.size() - 2];
    std::string const id = std::to_string(client.connection->id());
    std::string const business = nameOf(*client.session);
    std::string const line = business + ": client " + id + " takes over the requests from client " +
                             std::to_string(before);
    mServices.report(line);
    announce(line);
    tell(client.connection->id(), "this provider takes over the requests for " + business +
                                          " from client " + std::to_string(before) +
                                          ", which gets them again when this one leaves");
    tell(before, "client " + id + " takes over the requests for " + business +
                         "; this provider gets them again when that one leaves");
}

// The one that had the requests has left: the one before it has them again.
void Clients::giveBack(Client const& client) {
    std::vector<uint32_t> const& providers = client.business->providers;
    if (providers.empty()) return;
    std::string const business = nameOf(*client.session);
    std::string const line =
            business + ": client " + std::to_string(providers.back()) + " gets the requests again";
    mServices.report(line);
    announce(line);
    tell(providers.back(), "this provider gets the requests for " + business + " again");
}

void Clients::tell(uint32_t clientId, std::string const& text) {
    Client const& client = mClients.at(clientId);
    if (!client.notified) return;
    send(*client.connection, client::encodeMessage(client::MessageType::NOTICE, text));
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
void Clients::publish(Client& client, client::Message const& message) {
    bool const request = message.type == client::MessageType::REQUEST;
    int const role = request ? VeskSessionManager::CONSUMER : VeskSessionManager::PROVIDER;
    if (!client.session || client.session->type() != role) {
        return refuse(*client.connection, std::string("only a ") + roleName(role) +
                                                  (request ? " sends requests" : " sends replies"));
    }
    std::optional<client::DataMessage> data = client::DataMessage::decode(message.body);
    if (!data) return refuse(*client.connection, "a REQUEST or REPLY message is not of its form");
    std::shared_ptr<VeskFrame> const frame = VeskFrame::obtainFrame(true);
    frame->topicId = static_cast<uint8_t>(client.session->topicId());
    frame->businessId = static_cast<uint8_t>(client.session->businessId());
    frame->msgType = request ? REQUEST : REPLY;
    frame->reply = request ? client.session->sessionId() : data->session;
    frame->msgId = data->msgId;
    frame->data = std::move(data->payload);
    client.session->send(client.local, mFlow.handedOver(client, frame), 1);
}

void Clients::watch(Client& client) {
    if (client.watches) return;
    client.watches = true;
    for (std::string const& topic : mTopics) {
        send(*client.connection,
             client::ChangeMessage{true, topic, {}}.encode(client::MessageType::TOPIC));
    }
    for (auto const& [topic, business] : mProviders) {
        send(*client.connection,
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
    send(*client.connection, counters.encode());
}

void Clients::answerStatus(Client& client, client::Message const& message) {
    auto const question = client::StatusMessage::decode(message.body);
    if (!question) return refuse(*client.connection, "a STATUS message is not of its form");
    if (!mServices.status) return refuse(*client.connection, "this host tells no status");
    HostStatus status = mServices.status();
    status.slowClients = slowClients();
    status.localTopics.assign(mLocalTopics.begin(), mLocalTopics.end());
    bool const isJson = question->format == client::StatusFormat::JSON;
    send(*client.connection, client::encodeMessage(client::MessageType::STATUS_TEXT,
                                                   isJson ? status.json() : status.text()));
}

std::vector<HostStatus::SlowClient> Clients::slowClients() const {
    std::vector<HostStatus::SlowClient> found;
    for (auto const& [id, client] : mClients) {
        auto const waited = Backlog::Clock::now() - client.connection->waitingSince();
        if (client.connection->backlog() == 0 || waited < SLOW) continue;
        auto const millis = std::chrono::duration_cast<std::chrono::milliseconds>(waited).count();
        found.push_back({id, client.connection->backlog(), static_cast<uint64_t>(millis)});
    }
    return found;
}

void Clients::tap(Client& client, client::Message const& message) {
    auto const question = client::TapMessage::decode(message.body);
    if (!question) return refuse(*client.connection, "a TAP message is not of its form");
    if (!question->on) return mTappers.remove(*client.connection);
    std::string const why = mTappers.whyNot(*client.connection);
    if (!why.empty()) return refuse(*client.connection, why);
    mTappers.add(client.connection);
}

void Clients::deliver(uint32_t clientId, uint32_t sessionId, VeskFrame const& frame) {
    auto found = mClients.find(clientId);
    if (found == mClients.end()) return;
    bool const request = frame.msgType == REQUEST;
    // Of several providers, the library chooses any.
    if (request && found->second.provides())
        found = mClients.find(found->second.business->providers.back());
    uint16_t const session = request ? frame.reply : static_cast<uint16_t>(sessionId);
    client::MessageType const type =
            request ? client::MessageType::REQUEST : client::MessageType::REPLY;
    if (!request) mFlow.answered(found->second, frame);
    send(*found->second.connection,
         client::DataMessage::encode(type, session, frame.msgId, frame.data));
}

void Clients::send(ClientConnection& connection, client::Bytes message) {
    mFlow.makeRoom(message.size());
    connection.send(std::move(message));
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

void Clients::announce(std::string const& text) {
    for (auto const& [id, client] : mClients) {
        if (client.watches) tell(id, text);
    }
}

void Clients::broadcast(client::Bytes const& message) {
    for (auto const& [id, client] : mClients) {
        if (client.watches) send(*client.connection, message);
    }
}

}  // namespace vesk::hostkit
