#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>

namespace vesk::hostkit {

/**
 * Counts the bytes of the frames that the library holds for a host: those that are pending, being
 * written, or awaiting acknowledgement. A SendGate bounds the number of frames; a host whose
 * payloads are long looks here, too, before it sends.
 *
 * Threads:   every operation may be called from any thread.
 * Ownership: the frames may outlive this object.
 */
class VESK_EXPORT FrameTally {
public:
    /**
     * A pointer to the same frame that is to be sent in its place: the frame's bytes count until
     * the last copy of that pointer is gone. REQUIRES: `frame` is not null.
     */
    std::shared_ptr<VeskFrame> count(std::shared_ptr<VeskFrame> frame);

    /** Heads and payloads, as they were when they were counted. */
    size_t bytes() const { return *mBytes; }

private:
    using Count = std::atomic<size_t>;

    std::shared_ptr<Count> const mBytes = std::make_shared<Count>(0);
};

}  // namespace vesk::hostkit
