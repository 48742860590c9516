#pragma once

#include <mutex>

#include <vesk/VeskCallback.h>
#include <vesk/VeskThreadAnnotations.h>
#include <vesk/hostkit/TrafficCounters.h>
#include <vesk/hostkit_asio/Channel.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <vesk/hostkit_asio/Tap.h>

namespace vesk::hostkit {

/**
 * What the library asks of a host: carries its calls to the channel and to the clients.
 *
 * The library holds this object until the process ends, long after the host is gone; so the host
 * detaches itself first, and from then on every call does nothing.
 *
 * Threads: sendToChannel() runs on the library's looper, hence the lock. Everything else runs on
 * the host's one thread, because that thread makes every call into the library.
 */
class HostCallback : public VeskCallback {
public:
    /** They must live until detach(). */
    HostCallback(Channel& channel, ClientServer& clients, TrafficCounters& traffic, Tap& tap)
        : mChannel(&channel), mClients(&clients), mTraffic(&traffic), mTap(&tap) {}

    /** On the host's thread. */
    void detach() VESK_EXCLUDES(mMutex);

    void receive(uint32_t clientId, uint32_t sessionId, bool local,
                 std::shared_ptr<VeskFrame> const& frame) override;

    /** Only appends to the channel's buffer: it never blocks the looper. */
    void sendToChannel(std::vector<uint8_t> bytes) override VESK_EXCLUDES(mMutex);

    void notifyTopicChanged(bool added, std::string topicName) override;
    void notifyBusinessChanged(bool added, std::string topicName,
                               std::string businessName) override;

private:
    std::mutex mMutex;
    Channel* mChannel VESK_GUARDED_BY(mMutex);
    ClientServer* mClients;
    // Used only where the others are there.
    TrafficCounters* const mTraffic;
    Tap* const mTap;
};

}  // namespace vesk::hostkit
