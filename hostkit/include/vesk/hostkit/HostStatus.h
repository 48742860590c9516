#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vesk/Vesk.h>
#include <vesk/VeskExport.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/Outbox.h>
#include <vesk/hostkit/TrafficCounters.h>

namespace vesk::hostkit {

/**
 * Everything countable about a host at one moment: what waits, against its bounds, and what has
 * become of everything since the start. A plain record, to be compared with an earlier one.
 *
 * Threads: of() may be called from any thread. The numbers are read one after another while the
 *          host goes on, so they agree with each other only where it rests.
 */
struct VESK_EXPORT HostStatus {
    /** Sessions that have joined one business of the catalogue, and what nobody provided. */
    struct Business {
        std::string topic;
        std::string business;
        size_t consumers = 0;
        size_t providers = 0;
        uint64_t unprovided = 0;  // requests of the peer that no provider got
    };

    /** A local client that does not take what is sent to it. */
    struct SlowClient {
        uint32_t id = 0;
        size_t waiting = 0;        // bytes
        uint64_t sinceMillis = 0;  // for so long
    };

    struct Traffic {
        TrafficCounters::Count in;
        TrafficCounters::Count out;
    };

    /**
     * Reads all of it. Asks for each of the 65,534 session ids, which takes a few milliseconds.
     *
     * @param outbox, reader the host's, where it has them: null ones count as up and as 0.
     */
    static HostStatus of(Vesk& vesk, TrafficCounters const& traffic, Outbox const* outbox = nullptr,
                         FrameReader const* reader = nullptr);

    /**
     * What is probably wrong, a sentence for each: the channel is down, the peer does not
     * acknowledge or does not read, nobody provides what is asked for, bytes belong to no frame,
     * frames were dropped, a client does not read. None for a host that is well.
     */
    std::vector<std::string> suspicions() const;

    /** For a person: a few lines, each with its line break, and the suspicions last. */
    std::string text() const;

    /** For a program: one JSON object in one line, without a line break. "delayMs" may be null. */
    std::string json() const;

    // Now, of the bounds in VeskProtocol.h.
    size_t pending = 0;
    size_t awaitingAck = 0;
    size_t owedAcks = 0;

    // Since the queue was made.
    uint64_t acknowledged = 0;
    uint64_t timedOut = 0;
    uint64_t superseded = 0;
    uint64_t dropped = 0;  // at admission

    // Since the channel came up. No delay is known before the first acknowledgement, and after a
    // packet that was never acknowledged.
    std::optional<uint32_t> delayMillis;
    uint32_t slowDeliveries = 0;  // consecutive ones

    // The channel.
    bool up = true;
    size_t backlog = 0;         // bytes
    uint64_t lostBytes = 0;     // that never left
    uint64_t skippedBytes = 0;  // of the stream that came in

    std::array<Traffic, TrafficCounters::KINDS> traffic;  // by TrafficCounters::Kind
    uint64_t undelivered = 0;                             // frames that found no session

    std::vector<Business> businesses;  // those that somebody has joined or asked for, by their ids

    // What of() cannot know; a host that does, fills it in.
    std::optional<uint64_t> channelMillis;  // for so long the channel has been up, or down
    uint64_t reconnects = 0;
    std::vector<std::string> localTopics;
    std::vector<SlowClient> slowClients;
};

}  // namespace vesk::hostkit
