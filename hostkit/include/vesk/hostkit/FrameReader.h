#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>
#include <vesk/VeskProtocol.h>

namespace vesk::hostkit {

/**
 * Finds the frames in a byte stream, whatever the chunks in which it comes.
 *
 * In step, which is where a stream begins and behind each whole frame, a magic byte and the length
 * behind it are believed, and the whole frame is handed on: also one of a type, topic or business
 * that this version does not know, or an acknowledgement with a wrong count. What is inside its
 * payload is never taken for a frame.
 *
 * Any other byte there means that step is lost. All bytes are then skipped and counted until 12 of
 * them make a header that the library would act on: a business of the catalogue with any type but
 * 1, or an acknowledgement whose reply field is its number of entries. In random bytes one such
 * header comes by chance in about a million. It is believed, for nothing in the format tells it
 * from a true one, and hides at most the 65,535 bytes behind it.
 *
 * A frame that is never completed would swallow what comes after it. So the owner watches the
 * clock: when nothing has arrived for some time (a second is plenty) while incomplete(), it calls
 * abandon(), which finds the whole frames that were swallowed. Only a silence that the peer has
 * made counts, not one in which the owner did not read.
 *
 * Memory:  one frame, 12 + 65,535 bytes.
 * Time:    linear in the bytes fed, whatever they are.
 * Threads: one caller at a time, who also runs the handler; skippedBytes() from any thread. Does no
 *          I/O and has no timer.
 */
class VESK_EXPORT FrameReader {
public:
    static constexpr size_t HEAD_SIZE = VeskFrame::FRAME_HEAD_SIZE;
    static constexpr size_t MAX_FRAME_SIZE = HEAD_SIZE + MAX_PAYLOAD_SIZE;

    /** Gets each frame, its to keep, as VeskQueue::receiveFromChannel() wants it. */
    using FrameHandler = std::function<void(std::shared_ptr<VeskFrame> const& frame)>;

    /**
     * @param catalogue must outlive the reader.
     * @param onFrame   must not be empty, and must call nothing of the reader but skippedBytes().
     */
    FrameReader(VeskConfig const& catalogue, FrameHandler onFrame);

    /** Takes what the channel has brought; every frame that it completes is handed on at once. */
    void feed(uint8_t const* bytes, size_t size);

    /** Whether a part of a frame is held whose rest is awaited. */
    bool incomplete() const { return !mHeld.empty(); }

    /**
     * The channel has been silent: gives up the incomplete frame. Whole frames among its bytes are
     * handed on, the other bytes are skipped. What comes next is taken for the beginning of a
     * frame.
     */
    void abandon();

    /** A new stream begins: forgets an incomplete frame, whose bytes count as skipped. */
    void reset();

    /** Bytes that belonged to no frame, since construction. */
    uint64_t skippedBytes() const { return mSkipped; }

private:
    enum class Rest { MAY_COME, NEVER_COMES };

    size_t examine(uint8_t const* bytes, size_t size, Rest rest);
    size_t skipToMagic(uint8_t const* bytes, size_t size);
    bool isBelieved(uint8_t const* header) const;
    bool isPlausible(uint8_t const* header) const;
    size_t missing() const;
    void handOn(uint8_t const* bytes, size_t size);
    void skip(size_t count);

    VeskConfig const& mCatalogue;
    FrameHandler const mOnFrame;
    std::vector<uint8_t> mHeld;  // the part of a frame whose rest is awaited, from its magic byte
    bool mInStep = true;
    std::atomic<uint64_t> mSkipped{0};
};

}  // namespace vesk::hostkit
