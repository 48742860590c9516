#pragma once

#include <vesk/VeskCallback.h>
#include <vesk/hostkit/TrafficCounters.h>
#include <vesk/hostkit_asio/Channel.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <vesk/hostkit_asio/Tap.h>

#include "CallGate.h"

namespace vesk::hostkit {

/**
 * What the library asks of a host: carries its calls to the channel and to the clients.
 *
 * The library holds this object until the process ends, long after the host is gone; so the host
 * detaches itself first, and from then on every call does nothing.
 *
 * Threads: sendToChannel() runs on the library's looper, hence the gate. Everything else runs on
 * the host's one thread, because that thread makes every call into the library. No lock is held
 * while a call goes on to the channel, the tap or the clients.
 */
class HostCallback : public VeskCallback {
public:
    /** They must live until detach(). */
    HostCallback(Channel& channel, ClientServer& clients, TrafficCounters& traffic, Tap& tap)
        : mChannel(channel), mClients(&clients), mTraffic(traffic), mTap(tap) {
        mGate.open();
    }

    /**
     * On the host's thread. When this returns, nothing that was named to the constructor is used
     * any more: a call of the looper that is under way is waited for, which does not take long.
     */
    void detach();

    void receive(uint32_t clientId, uint32_t sessionId, bool local,
                 std::shared_ptr<VeskFrame> const& frame) override;

    /** Only appends to the channel's buffer: it never blocks the looper. */
    void sendToChannel(std::vector<uint8_t> bytes) override;

    void notifyTopicChanged(bool added, std::string topicName) override;
    void notifyBusinessChanged(bool added, std::string topicName,
                               std::string businessName) override;

private:
    CallGate mGate;
    Channel& mChannel;       // behind the gate
    ClientServer* mClients;  // null once the host is detached
    TrafficCounters& mTraffic;
    Tap& mTap;
};

}  // namespace vesk::hostkit
