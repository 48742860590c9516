#pragma once

#include <cstddef>

#include <vesk/VeskQueue.h>

#include "Channel.h"

namespace vesk::tool {

/**
 * Says whether the library can take one more frame for the peer without losing any.
 *
 * The library never blocks a sender: the frame that finds 1000 others pending is dropped. So a host
 * looks before it sends and, where this says no, leaves the frame with its client until there is
 * room. That is exact as long as one thread does all the sending.
 */
class Admission {
public:
    /**
     * Frames that are pending or sent and not acknowledged. With 1000 of the latter the looper
     * stops sending, and the acknowledgements that it owes the peer wait behind the frames it
     * holds; two hosts in that state wait for each other until their frames expire. Some room is
     * left for the acknowledgement frames, which are pending too.
     */
    static constexpr size_t MAX_IN_FLIGHT = 900;

    /** Pending frames: with payloads of 64 KiB each this is the host's greatest need of memory. */
    static constexpr size_t MAX_PENDING = 256;

    /** Bytes that the looper has handed to the channel and the channel has not sent yet. */
    static constexpr size_t MAX_BACKLOG = size_t{1024} * 1024;

    /** Both must outlive this object. */
    Admission(VeskQueue const& queue, Channel const& channel) : mQueue(queue), mChannel(channel) {}

    /** While the channel is down nothing is admitted: what is sent then would go nowhere. */
    bool open() const;

private:
    VeskQueue const& mQueue;
    Channel const& mChannel;
};

}  // namespace vesk::tool
