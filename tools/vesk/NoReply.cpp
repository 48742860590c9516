#include "NoReply.h"

#include <algorithm>
#include <cstdint>

#include <vesk/VeskProtocol.h>
#include <nlohmann/json.hpp>

#include "Errors.h"

namespace vesk::tool {

namespace {

using Json = nlohmann::json;

// What a host does not tell, or tells as null, counts as 0 and as empty.
uint64_t numberOf(Json const& status, char const* name) {
    auto const found = status.find(name);
    return found != status.end() && found->is_number() ? found->get<uint64_t>() : 0;
}

/** Whether the host sends the topic's frames to no peer. */
bool isLocal(Json const& status, std::string const& topic) {
    Json const topics = status.value("localTopics", Json::array());
    return std::find(topics.begin(), topics.end(), topic) != topics.end();
}

bool isProvided(Json const& status, std::string const& business) {
    Json const sessions = status.value("sessions", Json::array());
    return std::any_of(sessions.begin(), sessions.end(), [&](Json const& entry) {
        return entry.value("topic", "") + '/' + entry.value("business", "") == business &&
               numberOf(entry, "providers") > 0;
    });
}

NoReply explainBy(Json const& status, std::string const& business, size_t lost,
                  size_t waitedMillis) {
    if (isLocal(status, business.substr(0, business.find('/')))) {
        if (isProvided(status, business)) {
            return {EXIT_NOT_ANSWERED, "its provider on this host has not answered"};
        }
        return {EXIT_NO_PROVIDER, "nobody provides " + business + " on this host"};
    }
    if (!status.value("up", true)) {
        return {EXIT_CHANNEL_DOWN, "the host's channel is down since " +
                                           std::to_string(numberOf(status, "channelMs") / 1000) +
                                           " s"};
    }
    // What has waited for longer than acknowledgements are waited for is counted by now.
    uint64_t unacknowledged = numberOf(status, "timedOut");
    if (waitedMillis < ACK_TIMEOUT_MS) {
        unacknowledged += numberOf(status, "awaitingAck") + numberOf(status, "pending");
    }
    if (numberOf(status, "acknowledged") == 0 || unacknowledged >= lost) {
        // A peer may keep acknowledgements for that long before it sends them together.
        bool const isSoon = waitedMillis <= ACK_BATCH_AGE_MS;
        return {EXIT_NOT_ACKNOWLEDGED, std::string("the peer has not acknowledged them") +
                                               (isSoon ? " yet: a longer --timeout tells more"
                                                       : ": see whether it runs and reads")};
    }
    return {EXIT_NOT_ANSWERED, "the peer has acknowledged them and nobody answered: see whether " +
                                       business + " is provided there"};
}

}  // namespace

NoReply NoReply::explain(std::string const& status, std::string const& business, size_t lost,
                         size_t waitedMillis) {
    try {
        return explainBy(Json::parse(status), business, lost, waitedMillis);
    } catch (Json::exception const&) {
        return {EXIT_FAILED, "what the host tells of its state is not understood"};
    }
}

}  // namespace vesk::tool
