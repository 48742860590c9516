#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include <vesk/VeskConfig.h>

namespace vesk::tool {

/**
 * Finds the frames in a byte stream.
 *
 * A frame starts where 12 bytes make a header that can be: the magic byte; a business of the
 * catalogue with message type 2 or 3, or an acknowledgement (ids 0xAA, type 1) whose length is 4
 * times its reply field. Everything before such a header is skipped and counted. A header that
 * cannot be costs its magic byte only: the search goes on with the byte behind it.
 *
 * What is found does not depend on how the stream is cut into chunks. In a stream without foreign
 * bytes every frame is found. After foreign bytes the next frame is found at once, unless they hold
 * something that can be a header: random bytes do once in some ten million. Nothing in the format
 * tells such a false header from a true one, so it is believed; it can hide at most the 65,535
 * bytes behind it. A header that follows skipped bytes is therefore doubtful() until its frame is
 * complete, and when the channel falls silent meanwhile, abandon() gives up the header and finds
 * the frames that it hid.
 *
 * Memory:  one frame, 12 + 65,535 bytes.
 * Time:    linear in the bytes fed.
 * Threads: none of its own; one caller at a time. Does no I/O.
 */
class StreamReader {
public:
    static constexpr size_t MAX_FRAME_SIZE = 12 + 65535;

    /** Gets each frame, header and payload; the bytes are the reader's and valid for the call. */
    using FrameHandler = std::function<void(std::vector<uint8_t> const& frame)>;

    /** `catalogue` must outlive the reader. */
    StreamReader(VeskConfig const& catalogue, FrameHandler onFrame);

    void feed(uint8_t const* bytes, size_t size);

    /** Whether an incomplete frame is awaited whose header follows skipped bytes. */
    bool doubtful() const { return mAfterGarbage && !mFrame.empty(); }

    /** Gives up the frame that is awaited: skips its header, finds what its bytes hold. */
    void abandon();

    /** Forgets an incomplete frame, whose bytes count as skipped: a new stream begins. */
    void reset();

    /** Bytes that belonged to no frame, since construction. */
    uint64_t skippedBytes() const { return mSkipped; }

private:
    void examine();
    bool canBeHeader(uint8_t const* bytes) const;
    size_t skipToMagic(uint8_t const* bytes, size_t size);
    size_t missing() const;
    void rejectHeader();
    void skip(size_t count);

    VeskConfig const& mCatalogue;
    FrameHandler mOnFrame;
    std::vector<uint8_t> mFrame;  // the frame that is being collected; starts with the magic byte
    uint64_t mSkipped = 0;
    bool mAfterGarbage = false;  // the last byte before mFrame was skipped
};

}  // namespace vesk::tool
