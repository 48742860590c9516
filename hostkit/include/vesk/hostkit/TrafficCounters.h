#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>

namespace vesk::hostkit {

/**
 * Counts the frames of a channel, by direction and type, and the requests that found no provider,
 * by business, as a host feeds it: in() with each frame before VeskQueue::receiveFromChannel() gets
 * it, out() in VeskCallback::sendToChannel(), and delivered() in VeskCallback::receive().
 *
 * Threads: every operation may be called from any thread. The counters are independent: a reader
 *          may see one updated before another. Nothing resets them.
 */
class VESK_EXPORT TrafficCounters {
public:
    enum Kind : uint8_t { ACKNOWLEDGEMENTS, REQUESTS, REPLIES, OTHERS, KINDS };

    struct Count {
        uint64_t frames = 0;
        uint64_t bytes = 0;  // headers included
    };

    /** A frame has been read from the channel. */
    void in(VeskFrame const& frame);

    /** A frame goes to the channel: the bytes that sendToChannel() has brought. */
    void out(std::vector<uint8_t> const& bytes) {
        mOut[kindOf(bytes[VeskFrame::MSGTYPE_INDEX], bytes[VeskFrame::TOPICID_INDEX],
                    bytes[VeskFrame::BUSINESSID_INDEX])]
                .add(bytes.size());
    }

    /** The library has delivered a frame; one that it looped back (`local`) does not count. */
    void delivered(VeskFrame const& frame, bool local);

    Count in(Kind kind) const { return mIn[kind].read(); }
    Count out(Kind kind) const { return mOut[kind].read(); }

    /**
     * Frames in, other than acknowledgements, that no session got: because nobody provides their
     * business, the session that they answer is gone, or the library does not know them. One that
     * is just being delivered counts as well. 0 where nobody calls in().
     */
    uint64_t undelivered() const;

    /**
     * Requests in for a business that no provider got; one that is just being delivered counts as
     * well. 0 for ids beyond MAX_ID, which are not counted one by one, and where nobody calls in().
     */
    uint64_t unprovided(uint16_t topicId, uint16_t businessId) const;

    /** Up to here topics and businesses have counters of their own; the catalogue ends below. */
    static constexpr uint16_t MAX_ID = 15;

private:
    struct Cell {
        std::atomic<uint64_t> frames{0};
        std::atomic<uint64_t> bytes{0};

        void add(size_t size) {
            ++frames;
            bytes += size;
        }
        Count read() const { return {frames, bytes}; }
    };

    using ByBusiness = std::array<std::atomic<uint64_t>, size_t{MAX_ID + 1} * (MAX_ID + 1)>;

    static Kind kindOf(uint8_t msgType, uint8_t topicId, uint8_t businessId);
    static void countRequest(ByBusiness& counts, VeskFrame const& frame);

    std::array<Cell, KINDS> mIn;
    std::array<Cell, KINDS> mOut;
    std::atomic<uint64_t> mDelivered{0};
    ByBusiness mRequestsIn{};
    ByBusiness mRequestsDelivered{};
};

}  // namespace vesk::hostkit
