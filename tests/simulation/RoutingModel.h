#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace vesk::simulation {

/** Who is where: the topics and sessions as they have to be, and who may get a frame. */
class RoutingModel {
public:
    struct Topic;
    struct Session {
        uint16_t id;
        uint32_t client;
        bool provider;
        bool flag;
        uint8_t topicId, business;
        std::shared_ptr<Topic> topic;
    };
    using SessionPtr = std::shared_ptr<Session>;
    struct Topic {
        bool local = false;
        std::map<uint16_t, SessionPtr> providers, members;
    };

    /** Whether the call has to succeed. */
    bool createTopic(uint8_t id, bool local);
    bool removeTopic(uint8_t id) { return mTopics.erase(id) != 0; }

    /** The id that the call has to return; -4 where it has to fail. */
    int createSession(uint32_t client, bool provider, uint8_t topicId, uint8_t business, bool flag);
    /** The number of sessions that the call has to remove. */
    size_t removeSession(uint16_t id);
    void removeClient(uint32_t client);

    /** The sessions of which exactly one has to get the frame; none: nobody may. */
    std::vector<SessionPtr> receivers(uint8_t topicId, uint8_t business, uint8_t type,
                                      uint16_t reply) const;
    static std::vector<SessionPtr> receivers(Topic const& topic, uint8_t business, uint8_t type,
                                             uint16_t reply);

    std::map<uint16_t, SessionPtr> const& sessions() const { return mSessions; }
    bool hasTopic(uint8_t id) const { return mTopics.count(id) != 0; }

    /** Breaks the circles of topics and sessions. */
    ~RoutingModel();

private:
    static void leave(Session const& session);

    std::map<uint8_t, std::shared_ptr<Topic>> mTopics;
    std::map<uint16_t, SessionPtr> mSessions;
    std::vector<std::shared_ptr<Topic>> mEveryTopic;
};

}  // namespace vesk::simulation
