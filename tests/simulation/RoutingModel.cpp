#include "RoutingModel.h"

#include <set>

namespace vesk::simulation {

int RoutingModel::createTopic(uint16_t id, bool local) {
    std::string const name = mConfig.getTopicIdById(id);
    mTrace.expect("VeskTopicManager createTopic." + name);
    if (name.empty() || topic(id)) return 0;
    mTrace.expect(text("[", id, "] create."));
    mTrace.expect("topic + " + name);
    mOpen[id] = &mTopics.emplace_back(Topic{id, local, {}, {}});
    return id;
}

int RoutingModel::removeTopic(uint16_t id) {
    std::string const name = mConfig.getTopicIdById(id);
    mTrace.expect("VeskTopicManager removeTopic." + name);
    if (mOpen.erase(id) == 0) return 0;
    mTrace.expect("topic - " + name);
    return id;
}

RoutingModel::Topic* RoutingModel::topic(uint16_t id) const {
    auto const found = mOpen.find(id);
    return found == mOpen.end() ? nullptr : found->second;
}

std::string RoutingModel::business(Session const& session, bool added) const {
    return text("business ", added ? "+ " : "- ", mConfig.getTopicIdById(session.topic->id), " ",
                mConfig.getBussinessIdById(session.topic->id, session.business));
}

int RoutingModel::createSession(uint32_t client, int type, uint16_t topicId, uint16_t businessId,
                                bool flag) {
    std::string const name = mConfig.getTopicIdById(topicId);
    std::string const manager = "VeskSessionManager ";
    mTrace.expect(manager + "createSession:" + name +
                  ";in_bussiness:" + mConfig.getBussinessIdById(topicId, businessId));
    if (type != 1 && type != 2) {
        mTrace.expect(manager + "createSession:-4; topic:" + name);
        return -4;
    }
    mTrace.expect(text(manager, "getSessionDesc:", name.size(), "; topic:", name));
    if (!topic(topicId) || !mConfig.isBussinessSupport(topicId, businessId)) {
        mTrace.expect(manager + "getSessionDesc: null");
        return -4;
    }
    uint16_t id = 1;
    for (auto const& [present, session] : mSessions) {
        if (type == 2 && session.type == 2 && session.client == client && session.flag == flag &&
            session.topic->id == topicId && session.business == businessId) {
            mTrace.expect(text(manager, "provider has exist:", present));
            return present;
        }
    }
    while (mSessions.count(id) != 0)
        ++id;
    Session const session{id, client, type, flag, businessId, topic(topicId), ++mMade};
    mTrace.expect(text("VeskSession create:", id, ",topic:", topicId, ",bussiness:", businessId));
    if (type == 2) mTrace.expect(business(session, true));
    enter(session);
    mTrace.expect(text(manager, "createSession:", id, "; topic:", name));
    mSessions[id] = session;
    return id;
}

void RoutingModel::enter(Session const& session) {
    Topic& topic = *session.topic;
    mTrace.expect(text("[", topic.id, "] addSession:", session.id, ";business:", session.business));
    topic.all[session.id] = session;
    if (session.type == 2) topic.providers[session.id] = session;
}

std::string RoutingModel::leave(Session const& session) {
    Topic& topic = *session.topic;
    topic.providers.erase(session.id);
    topic.all.erase(session.id);
    return text("[", topic.id, "] mProviders:", topic.providers.size(),
                "mConsumers:", topic.all.size());
}

size_t RoutingModel::removeSession(uint16_t id) {
    auto const session = mSessions.find(id);
    if (session == mSessions.end()) return 0;
    // A provider stays in its topic, which goes on routing to it.
    mTrace.expect(session->second.type == 1 ? leave(session->second)
                                            : business(session->second, false));
    return mSessions.erase(id);
}

void RoutingModel::removeByClient(uint32_t client) {
    for (int const type : {1, 2}) {
        std::vector<std::string> lines;
        size_t left = 0;
        for (auto next = mSessions.begin(); next != mSessions.end();) {
            Session const session = next->second;
            bool const goes = session.type == type && session.client == client;
            left += session.type == type && !goes;
            next = goes ? mSessions.erase(next) : std::next(next);
            if (!goes) continue;
            // The numbers depend on the order, which nobody promises.
            std::string const line = leave(session);
            lines.push_back(line.substr(0, line.find("mP")) + "sizes");
            if (type == 2) lines.push_back(business(session, false));
        }
        mTrace.expectAll(std::move(lines));
        mTrace.expect(text("VeskSessionManager remove ",
                           type == 1 ? "session done :" : "providerSessions done:", left));
    }
}

size_t RoutingModel::alive() const {
    std::set<uint64_t> numbers;
    auto const add = [&](std::map<uint16_t, Session> const& table) {
        for (auto const& entry : table)
            numbers.insert(entry.second.number);
    };
    add(mSessions);
    for (Topic const& topic : mTopics) {
        add(topic.providers);
        add(topic.all);
    }
    return numbers.size();
}

std::vector<RoutingModel::Session> RoutingModel::receivers(Topic const* topic,
                                                           VeskFrame const& frame) {
    std::vector<Session> found;
    if (!topic || (frame.msgType != 2 && frame.msgType != 3)) return found;
    for (auto const& [id, session] : frame.msgType == 2 ? topic->providers : topic->all) {
        bool const addressed = frame.msgType == 2 || id == frame.reply;
        if (addressed && session.business == frame.businessId) found.push_back(session);
    }
    return found;
}

}  // namespace vesk::simulation
