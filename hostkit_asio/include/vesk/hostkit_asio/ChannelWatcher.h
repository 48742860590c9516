#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <vesk/hostkit/FrameText.h>

namespace vesk::hostkit {

/**
 * Sees what a channel carries, such as a capture. It is called for every piece of bytes, so it must
 * be quick and must not block.
 *
 * Threads: opened(), closed() and carried() of what comes in (IN) on the thread that runs the
 *          io_context; carried() of what goes out (OUT) on the thread that calls
 *          Channel::write(), beside them.
 */
class ChannelWatcher {
public:
    /** @param name the channel's endpoint. */
    virtual void opened(std::string const& name) = 0;
    virtual void closed() = 0;

    /**
     * Bytes have come in, in the pieces in which they were read, or are handed over to be written,
     * in the pieces of Channel::write(); also while the channel is down, when they go nowhere.
     */
    virtual void carried(FrameText::Direction direction, uint8_t const* bytes, size_t size) = 0;

protected:
    ~ChannelWatcher() = default;
};

}  // namespace vesk::hostkit
