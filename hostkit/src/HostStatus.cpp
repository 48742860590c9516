#include <vesk/hostkit/HostStatus.h>

#include <map>
#include <utility>

#include <vesk/VeskProtocol.h>

#include "Escape.h"
#include "JsonObject.h"

namespace vesk::hostkit {

namespace {

using std::to_string;

constexpr uint16_t LAST_SESSION_ID = 65534;

constexpr char const* KIND_NAMES[TrafficCounters::KINDS] = {"acknowledgements", "requests",
                                                            "replies", "others"};

using Businesses = std::map<std::pair<uint16_t, uint16_t>, HostStatus::Business>;

void countUnprovided(TrafficCounters const& traffic, Businesses& found) {
    for (uint16_t topicId = 1; topicId <= TrafficCounters::MAX_ID; ++topicId) {
        for (uint16_t id = 1; id <= TrafficCounters::MAX_ID; ++id) {
            uint64_t const unprovided = traffic.unprovided(topicId, id);
            if (unprovided > 0) found[{topicId, id}].unprovided = unprovided;
        }
    }
}

std::vector<HostStatus::Business> countSessions(Vesk& vesk, TrafficCounters const& traffic) {
    Businesses found;
    countUnprovided(traffic, found);
    for (uint32_t id = 1; id <= LAST_SESSION_ID; ++id) {
        auto const session = vesk.getSessionManager()->getSession(static_cast<uint16_t>(id));
        if (!session) continue;
        HostStatus::Business& business = found[{session->topicId(), session->businessId()}];
        bool const provides = session->type() == VeskSessionManager::PROVIDER;
        ++(provides ? business.providers : business.consumers);
    }
    std::vector<HostStatus::Business> businesses;
    for (auto& [ids, business] : found) {
        business.topic = vesk.getConfig()->getTopicIdById(ids.first);
        business.business = vesk.getConfig()->getBussinessIdById(ids.first, ids.second);
        if (business.business.empty()) continue;  // a peer may ask for what is in no catalogue
        businesses.push_back(std::move(business));
    }
    return businesses;
}

// The library counts a packet that was never acknowledged as TIMEOUT_DELAY_MS; a longer delay can
// only be a hold time that the peer has made up.
std::optional<uint32_t> knownDelay(VeskQueue const& queue) {
    uint32_t const delay = queue.feedback().delay();
    bool const measured = queue.acknowledged() > 0 && queue.feedback().sentPackets() > 0;
    bool const known = measured && delay < TIMEOUT_DELAY_MS;
    return known ? std::optional<uint32_t>(delay) : std::nullopt;
}

std::string ofBound(size_t value, size_t bound) {
    return to_string(value) + " of " + to_string(bound);
}

std::string textOf(TrafficCounters::Count const& count) {
    return to_string(count.frames) + " frames, " + to_string(count.bytes) + " bytes";
}

std::string jsonOf(TrafficCounters::Count const& count) {
    return JsonObject().add("frames", count.frames).add("bytes", count.bytes).text();
}

std::string jsonOf(HostStatus::Business const& entry) {
    return JsonObject()
            .addRaw("topic", jsonString(entry.topic))
            .addRaw("business", jsonString(entry.business))
            .add("providers", entry.providers)
            .add("consumers", entry.consumers)
            .add("unprovided", entry.unprovided)
            .text();
}

std::string jsonOf(HostStatus::SlowClient const& client) {
    return JsonObject()
            .add("id", client.id)
            .add("waiting", client.waiting)
            .add("sinceMs", client.sinceMillis)
            .text();
}

template <typename Items, typename ToJson>
std::string jsonList(Items const& items, ToJson toJson) {
    std::string list;
    for (auto const& item : items)
        list += (list.empty() ? "" : ",") + toJson(item);
    return '[' + list + ']';
}

template <typename Number>
std::string jsonOf(std::optional<Number> const& number) {
    return number ? to_string(*number) : "null";
}

std::string secondsOf(uint64_t millis) {
    return to_string(millis / 1000) + " s";
}

}  // namespace

HostStatus HostStatus::of(Vesk& vesk, TrafficCounters const& traffic, Outbox const* outbox,
                          FrameReader const* reader) {
    std::shared_ptr<VeskQueue> const queue = vesk.getQueue();
    HostStatus status;
    status.pending = static_cast<size_t>(queue->size());
    status.awaitingAck = queue->awaitingAck();
    status.owedAcks = queue->owedAcks();
    status.acknowledged = queue->acknowledged();
    status.timedOut = queue->timedOut();
    status.superseded = queue->superseded();
    status.dropped = queue->refused();
    status.delayMillis = knownDelay(*queue);
    status.slowDeliveries = queue->feedback().slowCount();
    if (outbox) {
        status.up = outbox->isOpen();
        status.backlog = outbox->backlog();
        status.lostBytes = outbox->lostBytes();
    }
    if (reader) status.skippedBytes = reader->skippedBytes();
    for (uint8_t i = 0; i < TrafficCounters::KINDS; ++i) {
        auto const kind = static_cast<TrafficCounters::Kind>(i);
        status.traffic[i] = {traffic.in(kind), traffic.out(kind)};
    }
    status.undelivered = traffic.undelivered();
    status.businesses = countSessions(vesk, traffic);
    return status;
}

std::string HostStatus::text() const {
    std::string text;
    auto const line = [&text](char const* name, std::string const& rest) {
        std::string const head(name);
        text += head + std::string(head.size() < 18 ? 18 - head.size() : 1, ' ') + rest + "\n";
    };
    std::string const since = channelMillis ? " since " + secondsOf(*channelMillis) : "";
    line("channel", (up ? "up" : "down") + since + ", " + to_string(reconnects) + " reconnects");
    line("bytes", "waiting " + to_string(backlog) + ", lost " + to_string(lostBytes) +
                          ", skipped " + to_string(skippedBytes));
    line("pending", ofBound(pending, MAX_PENDING));
    line("awaiting ack", ofBound(awaitingAck, MAX_AWAITING_ACK));
    line("owed acks", ofBound(owedAcks, MAX_OWED_ACKS));
    line("sent frames", "acknowledged " + to_string(acknowledged) + ", timed out " +
                                to_string(timedOut) + ", superseded " + to_string(superseded) +
                                ", dropped " + to_string(dropped));
    line("delay", (delayMillis ? to_string(*delayMillis) + " ms" : "not known") +
                          ", slow deliveries in a row " + to_string(slowDeliveries));
    for (size_t i = 0; i < traffic.size(); ++i) {
        line(KIND_NAMES[i], "in " + textOf(traffic[i].in) + "; out " + textOf(traffic[i].out));
    }
    line("found no session", to_string(undelivered) + " frames");
    for (Business const& entry : businesses) {
        line((entry.topic + "/" + entry.business).c_str(),
             to_string(entry.providers) + " providers, " + to_string(entry.consumers) +
                     " consumers, " + to_string(entry.unprovided) + " requests without a provider");
    }
    for (SlowClient const& client : slowClients) {
        line("slow client", to_string(client.id) + ", " + to_string(client.waiting) +
                                    " bytes wait since " + secondsOf(client.sinceMillis));
    }
    for (std::string const& suspicion : suspicions()) {
        line("suspicion", suspicion);
    }
    return text;
}

std::string HostStatus::json() const {
    JsonObject frames;
    for (size_t i = 0; i < traffic.size(); ++i) {
        JsonObject both;
        both.addRaw("in", jsonOf(traffic[i].in)).addRaw("out", jsonOf(traffic[i].out));
        frames.addRaw(KIND_NAMES[i], both.text());
    }
    return JsonObject()
            .addRaw("up", up ? "true" : "false")
            .addRaw("channelMs", jsonOf(channelMillis))
            .add("reconnects", reconnects)
            .add("backlog", backlog)
            .add("lostBytes", lostBytes)
            .add("skippedBytes", skippedBytes)
            .add("pending", pending)
            .add("maxPending", MAX_PENDING)
            .add("awaitingAck", awaitingAck)
            .add("maxAwaitingAck", MAX_AWAITING_ACK)
            .add("owedAcks", owedAcks)
            .add("maxOwedAcks", MAX_OWED_ACKS)
            .add("acknowledged", acknowledged)
            .add("timedOut", timedOut)
            .add("superseded", superseded)
            .add("dropped", dropped)
            .addRaw("delayMs", jsonOf(delayMillis))
            .add("slowDeliveries", slowDeliveries)
            .addRaw("frames", frames.text())
            .add("undelivered", undelivered)
            .addRaw("sessions",
                    jsonList(businesses, [](Business const& entry) { return jsonOf(entry); }))
            .addRaw("localTopics", jsonList(localTopics, jsonString))
            .addRaw("slowClients",
                    jsonList(slowClients, [](SlowClient const& client) { return jsonOf(client); }))
            .addRaw("suspicions", jsonList(suspicions(), jsonString))
            .text();
}

}  // namespace vesk::hostkit
