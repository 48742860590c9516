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
 * Counts the frames of a channel, by direction and type, as a host feeds it: in() with each frame
 * before VeskQueue::receiveFromChannel() gets it, out() in VeskCallback::sendToChannel(), and
 * delivered() in VeskCallback::receive().
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
    void in(VeskFrame const& frame) {
        mIn[kindOf(frame.msgType, frame.topicId, frame.businessId)].add(VeskFrame::FRAME_HEAD_SIZE +
                                                                        frame.data.size());
    }

    /** A frame goes to the channel: the bytes that sendToChannel() has brought. */
    void out(std::vector<uint8_t> const& bytes) {
        mOut[kindOf(bytes[VeskFrame::MSGTYPE_INDEX], bytes[VeskFrame::TOPICID_INDEX],
                    bytes[VeskFrame::BUSINESSID_INDEX])]
                .add(bytes.size());
    }

    /** The library has delivered a frame; one that it looped back (`local`) does not count. */
    void delivered(bool local) { mDelivered += local ? 0 : 1; }

    Count in(Kind kind) const { return mIn[kind].read(); }
    Count out(Kind kind) const { return mOut[kind].read(); }

    /**
     * Frames in, other than acknowledgements, that no session got: because nobody provides their
     * business, the session that they answer is gone, or the library does not know them. One that
     * is just being delivered counts as well.
     */
    uint64_t undelivered() const;

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

    static Kind kindOf(uint8_t msgType, uint8_t topicId, uint8_t businessId);

    std::array<Cell, KINDS> mIn;
    std::array<Cell, KINDS> mOut;
    std::atomic<uint64_t> mDelivered{0};
};

}  // namespace vesk::hostkit
