#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/VeskFrame.h>

#include "Trace.h"

namespace vesk::simulation {

/**
 * Who has joined what, and who gets a frame. Each operation is told before the library is, expects
 * the lines and notifications of it and returns what the library has to return.
 */
class RoutingModel {
public:
    struct Session;
    struct Topic {
        uint16_t id;
        bool local;
        std::map<uint16_t, Session> providers, all;
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

    RoutingModel(VeskConfig const& config, Trace& trace) : mConfig(config), mTrace(trace) {}

    int createTopic(uint16_t id, bool local);
    int removeTopic(uint16_t id);
    int createSession(uint32_t client, int type, uint16_t topic, uint16_t business, bool flag);
    size_t removeSession(uint16_t id);
    void removeByClient(uint32_t client);
    /** A session that the host has made itself and enters in its topic. */
    void enter(Session const& session);
    /** The topic's own removal. */
    std::string leave(Session const& session);

    /** All that there have been, in the order of their creation. */
    std::deque<Topic> const& topics() const { return mTopics; }
    /** The topic that is open under this id; null where none is. */
    Topic* topic(uint16_t id) const;
    std::map<uint16_t, Session> const& sessions() const { return mSessions; }
    /** How many sessions the manager or a topic holds. */
    size_t alive() const;
    /** One of these gets the frame. */
    static std::vector<Session> receivers(Topic const* topic, VeskFrame const& frame);

private:
    std::string business(Session const& session, bool added) const;

    VeskConfig const& mConfig;
    Trace& mTrace;
    std::deque<Topic> mTopics;  // removed ones included: sessions go on sending through them
    std::map<uint16_t, Topic*> mOpen;
    std::map<uint16_t, Session> mSessions;
    uint64_t mMade = 0;
};

}  // namespace vesk::simulation
