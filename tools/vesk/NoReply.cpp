#include "NoReply.h"

#include <cstdint>
#include <cstdlib>

#include <vesk/VeskProtocol.h>

#include "Errors.h"

namespace vesk::tool {

namespace {

/** The number behind the first member of this name; 0 where there is none. */
uint64_t numberOf(std::string const& json, std::string const& name) {
    std::string const key = '"' + name + "\":";
    size_t const at = json.find(key);
    return at == std::string::npos ? 0 : std::strtoull(json.c_str() + at + key.size(), nullptr, 10);
}

/** Whether the host sends the topic's frames to no peer. */
bool isLocal(std::string const& json, std::string const& topic) {
    size_t const begin = json.find("\"localTopics\":[");
    if (begin == std::string::npos) return false;
    return json.substr(begin, json.find(']', begin) - begin).find('"' + topic + '"') !=
           std::string::npos;
}

}  // namespace

NoReply NoReply::explain(std::string const& status, std::string const& business, size_t lost,
                         size_t waitedMillis) {
    std::string const topic = business.substr(0, business.find('/'));
    if (isLocal(status, topic)) {
        std::string const served = "\"topic\":\"" + topic + "\",\"business\":\"" +
                                   business.substr(topic.size() + 1) + "\",\"providers\":";
        size_t const at = status.find(served);
        bool const isProvided = at != std::string::npos && status[at + served.size()] != '0';
        if (isProvided) return {EXIT_NOT_ANSWERED, "its provider on this host has not answered"};
        return {EXIT_NO_PROVIDER, "nobody provides " + business + " on this host"};
    }
    if (status.find("\"up\":false") != std::string::npos) {
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

}  // namespace vesk::tool
