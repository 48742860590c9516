#include "RoutingModel.h"

namespace vesk::simulation {

RoutingModel::~RoutingModel() {
    for (auto const& topic : mEveryTopic) {
        topic->providers.clear();
        topic->members.clear();
    }
}

bool RoutingModel::createTopic(uint8_t id, bool local) {
    if (hasTopic(id)) {
        return false;
    }
    auto topic = std::make_shared<Topic>();
    topic->local = local;
    mEveryTopic.push_back(topic);
    mTopics[id] = std::move(topic);
    return true;
}

int RoutingModel::createSession(uint32_t client, bool provider, uint8_t topicId, uint8_t business,
                                bool flag) {
    if (!hasTopic(topicId)) {
        return -4;
    }
    for (auto const& [id, other] : mSessions) {
        if (provider && other->provider && other->client == client && other->flag == flag &&
            other->topicId == topicId && other->business == business) {
            return id;
        }
    }
    uint16_t id = 1;
    while (mSessions.count(id) != 0) {
        ++id;
    }
    auto const session = std::make_shared<Session>(
            Session{id, client, provider, flag, topicId, business, mTopics[topicId]});
    mSessions[id] = session;
    session->topic->members[id] = session;
    if (provider) {
        session->topic->providers[id] = session;
    }
    return id;
}

void RoutingModel::leave(Session const& session) {
    session.topic->members.erase(session.id);
    session.topic->providers.erase(session.id);
}

size_t RoutingModel::removeSession(uint16_t id) {
    auto const found = mSessions.find(id);
    if (found == mSessions.end()) {
        return 0;
    }
    // A provider that is removed by its id stays in its topic.
    if (!found->second->provider) {
        leave(*found->second);
    }
    mSessions.erase(found);
    return 1;
}

void RoutingModel::removeClient(uint32_t client) {
    for (auto next = mSessions.begin(); next != mSessions.end();) {
        auto const entry = next++;
        if (entry->second->client != client) continue;
        leave(*entry->second);
        mSessions.erase(entry);
    }
}

std::vector<RoutingModel::SessionPtr> RoutingModel::receivers(uint8_t topicId, uint8_t business,
                                                              uint8_t type, uint16_t reply) const {
    auto const topic = mTopics.find(topicId);
    return topic == mTopics.end() ? std::vector<SessionPtr>()
                                  : receivers(*topic->second, business, type, reply);
}

std::vector<RoutingModel::SessionPtr> RoutingModel::receivers(Topic const& topic, uint8_t business,
                                                              uint8_t type, uint16_t reply) {
    std::vector<SessionPtr> found;
    for (auto const& [id, session] : type == 2 ? topic.providers : topic.members) {
        bool const addressed = type == 2 || (type == 3 && id == reply);
        if (addressed && session->business == business) found.push_back(session);
    }
    return found;
}

}  // namespace vesk::simulation
