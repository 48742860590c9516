#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include <vesk/VeskFrame.h>
#include <vesk/hostkit/FrameTally.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <vesk/hostkit_asio/FlowLimits.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "Client.h"

namespace vesk::hostkit {

/**
 * Decides who may hand over a message, who waits, and who has to go, so that one client's trouble
 * is its own and the host's memory has a bound.
 *
 * - A consumer waits for itself alone: while too much waits for it, or may come for it.
 * - The consumers of a business wait while too many requests to it have no reply, so that a slow
 *   provider slows nobody else; not for long, because a request need not have one.
 * - Everybody else waits for the channel alone. Nobody ever waits for a consumer.
 * - A provider for which requests have waited too long goes.
 * - The channel is not read while a provider is congested, or memory short, although that stops
 *   everybody: a peer with the same bounds never lets it come to that, and the one that is to blame
 *   goes soon. A provider that the host itself keeps from going on is not waited for, so two hosts
 *   never wait for each other.
 *
 * Room comes with an event, and who waits is woken then; what comes with time alone is looked at
 * when it is due, so a host at rest sleeps.
 *
 * Threads: the one that runs the io_context.
 */
class FlowControl {
public:
    using Services = ClientServer::Services;

    /** All must outlive this object. */
    FlowControl(asio::io_context& io, FlowLimits const& limits, Services const& services,
                ClientTable& clients, size_t const& backlog);

    /** To be called when the client has joined. */
    void joined(Client& client);

    /** To be called when the client has left the table. */
    void left(Client& client);

    /**
     * Whether the client may hand over one more message. Where not, it is paused, and it is resumed
     * when there may be room.
     */
    bool admits(Client& client, bool isData);

    /** The same for a message that has come in part; it is taken when it is whole. */
    bool admitsPart(Client& client);

    /** The message that had come in part was taken; nothing happens where there was none. */
    void releasePart(Client& client);

    /** The client hands over this frame, of which the result is to be sent. */
    std::shared_ptr<VeskFrame> handedOver(Client& client, std::shared_ptr<VeskFrame> frame);

    /** A reply came for the client. */
    void answered(Client& client, VeskFrame const& reply);

    /** Disconnects those who are slowest until so many bytes more can wait for clients. */
    void makeRoom(size_t size);

    /** What waits for the client has changed. */
    void backlogChanged(Client& client);

    /** Lets those go on for whom there is room. Not from a callback of a connection. */
    void resume();

private:
    using Clock = Backlog::Clock;

    Obstacle obstacle(Client const& client, bool isData) const;
    Obstacle consumerObstacle(Client const& client) const;
    bool channelTakes() const;
    bool timeMakesRoom() const;
    ClientLine* lineOf(Client const& client, Obstacle obstacle);
    bool pause(Client& client, Obstacle obstacle);
    void resume(ClientLine& line);
    void resume(Client& client);
    void resumeSoon();
    void providerChanged(Client& client, size_t bytes);
    void updateShortage();
    void updateHold();
    Client* slowest();
    Clock::time_point waitingSince(Client const& client) const;
    void disconnectSlow(Clock::time_point now);
    bool endsNoPart(Client const& client) const;
    void lookAgain(Clock::time_point when);
    void look();
    Clock::time_point dueTime(Client const& client) const;

    asio::io_context& mIo;
    FlowLimits const mLimits;
    Services const& mServices;
    ClientTable& mClients;
    size_t const& mBacklog;  // of all clients
    FrameTally mFrames;
    std::map<uint16_t, Business> mBusinesses;
    ClientLine mDue;  // clients to be resumed next
    ClientLine mChannelLine;
    ClientLine mShortageLine;
    ClientLine mPartLines[2];  // of the channel's clients and of local ones
    size_t mParts[2] = {};     // messages that have come in part, of the same
    bool mResuming = false;
    bool mResumePosted = false;
    bool mShort = false;  // of memory
    bool mHolding = false;
    asio::steady_timer mTimer;
    bool mTimerRuns = false;
};

}  // namespace vesk::hostkit
