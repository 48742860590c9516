#pragma once

#include <chrono>
#include <cstddef>

namespace vesk::hostkit {

/**
 * How a host divides the memory that it may hold for others: with its clients, its channel and the
 * library. Bytes, all in proportion to the whole, and milliseconds, which are not. A host may
 * change any of them before it hands them over. Nothing is checked: keep each `low` below its
 * `high`, and times at 1 ms or more. A share that is computed from another one, as `consumerLow` is
 * from `consumerHigh`, does not follow a change of that.
 *
 * A quarter of the whole is nobody's share: the allocator's loss, and what is fixed.
 */
struct FlowLimits {
    static constexpr size_t MIB = size_t{1024} * 1024;
    static constexpr size_t DEFAULT_MEMORY = 64 * MIB;
    static constexpr size_t MIN_MEMORY = 16 * MIB;  // so that each share has room for messages

    /** How long a provider may have requests waiting, and a business take to answer any. */
    std::chrono::milliseconds patience{3000};

    /** The same, for a consumer of whose requests the last had no reply. */
    std::chrono::milliseconds shortPatience{250};

    /**
     * How long anybody may have something waiting while memory is short, or a message begun while
     * others wait to begin one.
     */
    std::chrono::milliseconds shortagePatience{1000};

    explicit FlowLimits(size_t memory = DEFAULT_MEMORY) : whole(memory) {}

    size_t whole;

    /** What one client may have waiting; beyond it the client is disconnected. */
    size_t client = whole / 16;

    /** With more than `high` waiting a consumer is not read from, until less than `low` is. */
    size_t consumerHigh = whole / 512;
    size_t consumerLow = consumerHigh / 2;

    /**
     * With more than `low` waiting a provider has `patience` for each message; with more than
     * `high` nothing more is read that may bring it requests.
     */
    size_t providerLow = whole / 32;
    size_t providerHigh = 3 * whole / 64;

    /** Requests of one business that had no reply yet: less than providerLow, so that only a
     * provider that lets them lie, or a peer that has no such bound, brings one there. */
    size_t business = whole / 64;

    /** Replies to what one consumer has asked for, as far as their size can be foreseen. */
    size_t replies = client - consumerHigh;

    /** What all clients together may have waiting; nothing more is read above `shortage`. */
    size_t allClients = 3 * whole / 8;
    size_t shortage = 3 * allClients / 4;

    /** Frames that the library holds: pending, or not acknowledged. */
    size_t frames = whole / 32;

    /** Bytes on their way into the channel: nothing more is sent above `high`. Acknowledgements
     * come on top of what was under way then, and above `read` the channel is not read. */
    size_t backlogHigh = whole / 256;
    size_t backlogLow = backlogHigh / 4;
    size_t backlogRead = 3 * whole / 64;

    /**
     * Messages that have come in part, of clients of the channel, and as many of the others. For
     * each of them 65,544 bytes are set aside, so that there is room for 31 by default.
     */
    size_t parts = whole / 32;

    /** Connections at a time. */
    static constexpr size_t CLIENTS = 1000;
};

}  // namespace vesk::hostkit
