#pragma once

#include <cstring>
#include <vector>

#include "Harness.h"

namespace peers {

/** The least that a protocol needs: conversation and size in front of the payload, 12 bytes as
 *  libvesk's header is, so that both write as much. */
class FrameStream {
public:
    static constexpr size_t HEAD = 12;

    explicit FrameStream(int channel) : mChannel(channel), mBuffer(size_t{256} * 1024) {}

    static void append(std::vector<uint8_t>& out, size_t conversation, uint8_t const* data,
                       size_t size) {
        uint32_t const head[3] = {uint32_t(size), uint32_t(conversation), 0};
        auto const* const bytes = reinterpret_cast<uint8_t const*>(head);
        out.insert(out.end(), bytes, bytes + HEAD);
        out.insert(out.end(), data, data + size);
    }

    /** The size of the frame whose header this is. */
    static size_t sizeAt(uint8_t const* head) {
        uint32_t size = 0;
        std::memcpy(&size, head, sizeof size);
        return HEAD + size;
    }

    /** Reads once, and hands on each whole frame: conversation, data and size. */
    template <typename Handler>
    void read(Handler const& onFrame) {
        mHeld += readSome(mChannel, mBuffer.data() + mHeld, mBuffer.size() - mHeld);
        size_t at = 0;
        while (mHeld - at >= HEAD && mHeld - at >= sizeAt(&mBuffer[at])) {
            uint32_t conversation = 0;
            std::memcpy(&conversation, &mBuffer[at + 4], sizeof conversation);
            onFrame(size_t{conversation}, &mBuffer[at + HEAD], sizeAt(&mBuffer[at]) - HEAD);
            at += sizeAt(&mBuffer[at]);
        }
        std::memmove(mBuffer.data(), &mBuffer[at], mHeld - at);
        mHeld -= at;
    }

private:
    int const mChannel;
    std::vector<uint8_t> mBuffer;
    size_t mHeld = 0;
};

}  // namespace peers
