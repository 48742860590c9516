#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <vesk/testkit/FarPeer.h>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/write.hpp>

#include "ClientProtocol.h"

namespace vesk::e2e {

using tool::Bytes;

/**
 * One end of a connection in the test's hands: of a client socket, as its client or as its host, or
 * of a byte channel, as the peer. Cuts what it hears by itself.
 *
 * Threads: the one that runs the io_context.
 */
class Line {
public:
    enum Kind { MESSAGES, FRAMES };

    /** Takes the descriptor and begins to read. */
    Line(asio::io_context& io, Kind kind, int descriptor)
        : mKind(kind), mEnd(io, descriptor), mChunk(size_t{64} * 1024) {
        read();
    }

    /** Writes everything, however long that takes. */
    void say(Bytes const& bytes) {
        asio::error_code closed;
        asio::write(mEnd, asio::buffer(bytes), closed);
    }
    void close() { mEnd.close(); }

    /** The messages, or the frames but for acknowledgements, with 0 for the serial number. */
    std::vector<Bytes> const& heard() const { return mHeard; }
    bool hasHeard(Bytes const& message) const {
        return std::find(mHeard.begin(), mHeard.end(), message) != mHeard.end();
    }
    /** Whether the other side has closed it. */
    bool closed() const { return mClosed; }
    /** What stands at this place of a message's body; where a host has let it join, its session. */
    uint16_t number(size_t message, size_t at = 0) const {
        Bytes const& bytes = mHeard[message];
        return static_cast<uint16_t>(bytes[5 + at] | bytes[6 + at] << 8);
    }

private:
    void read() {
        mEnd.async_read_some(asio::buffer(mChunk), [this](asio::error_code error, size_t size) {
            if (error == asio::error::operation_aborted) return;
            mClosed = static_cast<bool>(error);
            mBytes.insert(mBytes.end(), mChunk.data(), mChunk.data() + size);
            cut();
            if (!mClosed) read();
        });
    }

    void cut() {
        size_t const head = mKind == FRAMES ? 12 : 4, field = mKind == FRAMES ? 1 : 0;
        size_t at = 0;
        for (size_t size = 0; mBytes.size() - at >= head; at += size) {
            uint8_t const* const rest = &mBytes[at];
            size = head + rest[field] + rest[field + 1] * size_t{256};
            if (mKind == MESSAGES) size += rest[2] * size_t{65536};
            if (mBytes.size() - at < size) break;
            if (mKind == FRAMES && rest[5] == 1) continue;
            Bytes& bytes = mHeard.emplace_back(rest, rest + size);
            if (mKind == FRAMES) bytes[8] = bytes[9] = 0;
        }
        mBytes.erase(mBytes.begin(), mBytes.begin() + static_cast<Bytes::difference_type>(at));
    }

    Kind const mKind;
    asio::posix::stream_descriptor mEnd;
    Bytes mChunk, mBytes;
    std::vector<Bytes> mHeard;
    bool mClosed = false;
};

}  // namespace vesk::e2e
