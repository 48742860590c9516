#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include <vesk/VeskSession.h>
#include <vesk/VeskSessionManager.h>

#include "ClientConnection.h"
#include "Unanswered.h"

namespace vesk::hostkit {

/** Clients that wait for the same thing, longest wait first. */
using ClientLine = std::deque<uint32_t>;

/** What the clients of one business share. */
struct Business {
    size_t unanswered = 0;  // bytes of requests
    size_t congested = 0;   // providers that are
    ClientLine line;        // consumers that wait for replies to anybody, or for a provider
    std::vector<uint32_t> providers;  // in the order in which they have joined
};

/** Why a message is left with its client. */
enum class Obstacle {
    NONE,
    BACKLOG,   // too much waits for the client itself
    REPLIES,   // too many replies may come for the client
    BUSINESS,  // too many requests of the business have no reply, or a local provider is congested
    CHANNEL,   // the library or the channel takes no more
    SHORTAGE,  // of memory
    PARTS,     // too many messages have come in part
};

struct Client {
    bool joined() const { return session != nullptr; }
    bool provides() const { return joined() && session->type() == VeskSessionManager::PROVIDER; }
    bool consumes() const { return joined() && !provides(); }

    std::shared_ptr<ClientConnection> connection;
    std::shared_ptr<VeskSession> session;  // null until it has joined
    Business* business = nullptr;          // the same
    bool local = false;                    // the session's topic is
    bool watches = false;
    bool notified = false;  // has asked for notices
    Obstacle obstacle = Obstacle::NONE;
    std::optional<Unanswered> unanswered;  // of a consumer
    size_t part = 0;                       // bytes that are set aside for a message begun
    bool congested = false;                // a provider for which too much waits
};

using ClientTable = std::unordered_map<uint32_t, Client>;

}  // namespace vesk::hostkit
