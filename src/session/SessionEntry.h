#pragma once

#include <cstdint>

namespace vesk {

/** What a client asked for. Two providers that agree in all of it are the same provider. */
struct SessionKey {
    int type;
    uint32_t clientId;
    uint16_t topicId;
    uint16_t businessId;
    bool flag;

    bool operator==(SessionKey const& other) const {
        return type == other.type && clientId == other.clientId && topicId == other.topicId &&
               businessId == other.businessId && flag == other.flag;
    }
};

/**
 * The use of one session id by one creation, or by the host.
 *
 *     HELD -----------------------> GONE   makeSessionId(), then removeSession()
 *     JOINING --------------------> GONE   a creation that failed
 *     JOINING -> LIVE -> LEAVING -> GONE   a session
 *
 * The id is in use while HELD, JOINING and LIVE. After that its next user has an entry of its own,
 * so that nobody frees an id, or gives up a place, that has become another's. A creation alone ends
 * JOINING; the first removal to come ends LIVE, and announces that.
 */
struct SessionEntry {
    enum class State {
        HELD,     // the host has the id, and there is no session
        JOINING,  // the session is being made; no table has it
        LIVE,     // the session is in its table
        LEAVING,  // the id is free; the session is in its table until its removal is over
        GONE,
    };

    uint16_t id;
    uint64_t order;  // among all allocations: who came later keeps the place
    SessionKey key;  // of no meaning while HELD
    State state;
    bool leavesTopic = false;  // where its creation has yet to enter it there, it must turn back
};

}  // namespace vesk
