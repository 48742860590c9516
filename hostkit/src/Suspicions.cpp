#include <vesk/hostkit/HostStatus.h>

#include <vesk/VeskProtocol.h>

namespace vesk::hostkit {

namespace {

using std::to_string;

// So many frames may be under way to a peer that is well.
constexpr uint64_t MANY_AWAITING = 100;
// A peer that takes what is sent leaves less than this waiting.
constexpr size_t MANY_BYTES = size_t{256} * 1024;

/** With commas between thousands. */
std::string grouped(uint64_t number) {
    std::string digits = to_string(number);
    for (size_t at = digits.size(); at > 3; at -= 3)
        digits.insert(at - 3, 1, ',');
    return digits;
}

/** Bytes that came in and belong to frames. */
uint64_t bytesOfFrames(HostStatus const& status) {
    uint64_t sum = 0;
    for (auto const& traffic : status.traffic)
        sum += traffic.in.bytes;
    return sum;
}

std::string downSince(HostStatus const& status) {
    if (!status.channelMillis) return "the channel is down";
    return "the channel is down since " + to_string(*status.channelMillis / 1000) + " s";
}

std::string percentSkipped(HostStatus const& status) {
    uint64_t const percent =
            status.skippedBytes * 100 / (status.skippedBytes + bytesOfFrames(status));
    return (percent > 0 ? to_string(percent) : "less than 1") +
           " % of the bytes belong to no frame";
}

/** Empty for a peer that acknowledges most of what it gets. */
std::string notAcknowledged(HostStatus const& status) {
    uint64_t const all = status.acknowledged + status.timedOut + status.awaitingAck;
    bool const none = status.acknowledged == 0 &&
                      (status.timedOut > 0 || status.awaitingAck >= MANY_AWAITING);
    bool const few = status.timedOut > status.acknowledged / 10;
    if (!none && !few) return {};
    return "the peer has acknowledged " + grouped(status.acknowledged) + " of " + grouped(all) +
           (none ? " frames: it is not reading or does not acknowledge"
                 : " frames: it loses some, or is slow to acknowledge");
}

}  // namespace

std::vector<std::string> HostStatus::suspicions() const {
    std::vector<std::string> found;
    auto const add = [&found](bool suspected, std::string const& sentence) {
        if (suspected) found.push_back(sentence);
    };
    std::string const unacknowledged = notAcknowledged(*this);
    add(!up, downSince(*this));
    add(skippedBytes > 0, skippedBytes > 0 ? percentSkipped(*this) : "");
    add(!unacknowledged.empty(), unacknowledged);
    add(up && backlog >= MANY_BYTES,
        grouped(backlog) + " bytes wait for the channel: the peer does not read");
    add(dropped > 0, grouped(dropped) + " frames were dropped because " + grouped(MAX_PENDING) +
                             " were pending");
    for (Business const& entry : businesses) {
        add(entry.unprovided > 0 && entry.providers == 0, "requests for " + entry.topic + '/' +
                                                                  entry.business +
                                                                  " arrive and nobody provides it");
    }
    for (SlowClient const& client : slowClients)
        add(true, "client " + to_string(client.id) + " does not read");
    return found;
}

}  // namespace vesk::hostkit
