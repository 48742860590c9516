#pragma once

#include <deque>
#include <map>
#include <set>
#include <vector>

#include <vesk/VeskFrame.h>

namespace vesk::simulation {

/** Who has joined what, who gets a frame, and what each operation has to return. */
class RoutingModel {
public:
    struct Session;
    using Table = std::map<uint16_t, Session>;
    struct Topic {
        uint16_t id;
        bool local;
        Table providers, all;
    };
    struct Session {
        uint16_t id;
        uint32_t client;
        int type;
        bool flag;
        uint16_t business;
        Topic* topic;
        uint64_t number;  // of all that there have been
    };

    int createTopic(uint16_t id, bool local) {
        if (topic(id)) return 0;
        mOpen[id] = &topics.emplace_back(Topic{id, local, {}, {}});
        return id;
    }

    int removeTopic(uint16_t id) { return mOpen.erase(id) != 0 ? id : 0; }

    int createSession(uint32_t client, int type, uint16_t topicId, uint16_t business, bool flag) {
        if (!topic(topicId) || (type != 1 && type != 2)) return -4;
        for (auto const& [id, s] : sessions)
            if (type == 2 && s.type == 2 && s.client == client && s.flag == flag &&
                s.topic->id == topicId && s.business == business)
                return id;
        uint16_t id = 1;
        while (sessions.count(id) != 0)
            ++id;
        sessions[id] = enter({id, client, type, flag, business, topic(topicId), 0});
        return id;
    }

    Session enter(Session session) {
        session.number = ++mMade;
        if (session.type == 2) session.topic->providers[session.id] = session;
        return session.topic->all[session.id] = session;
    }

    static void leave(uint16_t id, Topic& topic) {
        topic.providers.erase(id);
        topic.all.erase(id);
    }

    size_t removeSession(uint16_t id) {
        auto const found = sessions.find(id);
        if (found == sessions.end()) return 0;
        // A provider stays in its topic, which goes on routing to it.
        if (found->second.type == 1) leave(id, *found->second.topic);
        return sessions.erase(id);
    }

    void removeByClient(uint32_t client) {
        for (auto next = sessions.begin(); next != sessions.end();) {
            auto const session = next++;
            if (session->second.client != client) continue;
            leave(session->first, *session->second.topic);
            sessions.erase(session);
        }
    }

    /** The topic that is open under this id; null where none is. */
    Topic* topic(uint16_t id) const { return mOpen.count(id) != 0 ? mOpen.at(id) : nullptr; }

    /** One of these gets the frame. */
    static std::vector<Session> receivers(Topic const* topic, VeskFrame const& frame) {
        std::vector<Session> found;
        if (!topic || (frame.msgType != 2 && frame.msgType != 3)) return found;
        for (auto const& [id, session] : frame.msgType == 2 ? topic->providers : topic->all) {
            bool const addressed = frame.msgType == 2 || id == frame.reply;
            if (addressed && session.business == frame.businessId) found.push_back(session);
        }
        return found;
    }

    /** How many sessions the manager or a topic holds. */
    size_t alive() const {
        std::set<uint64_t> numbers;
        std::vector<Table> tables{sessions};
        for (Topic const& topic : topics)
            tables.insert(tables.end(), {topic.providers, topic.all});
        for (Table const& table : tables)
            for (auto const& entry : table)
                numbers.insert(entry.second.number);
        return numbers.size();
    }

    Table sessions;            // of the manager
    std::deque<Topic> topics;  // removed ones included: sessions go on sending through them

private:
    std::map<uint16_t, Topic*> mOpen;
    uint64_t mMade = 0;
};

}  // namespace vesk::simulation
