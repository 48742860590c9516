// The reference host's reader: any bytes in any chunks, bounded memory, every byte accounted for,
// and valid frames after garbage are found again.

#include <StreamReader.h>
#include <vesk/testkit/FarPeer.h>

#include <algorithm>
#include <cstdlib>

namespace {

using vesk::VeskConfig;
using vesk::testkit::FarPeer;
using vesk::tool::StreamReader;
using Frames = std::vector<std::vector<uint8_t>>;

void require(bool holds) {
    if (!holds) std::abort();
}

VeskConfig const& catalogue() {
    static VeskConfig const config;
    return config;
}

/** Whether a header like this can be of this channel, so that its length is to be believed. */
bool plausible(FarPeer::Frame const& frame) {
    if (frame.msgType == 1) {
        return frame.topicId == 0xAA && frame.businessId == 0xAA &&
               frame.payload.size() == size_t{frame.reply} * 4;
    }
    return (frame.msgType == 2 || frame.msgType == 3) &&
           catalogue().isBussinessSupport(frame.topicId, frame.businessId);
}

/** Feeds the bytes in chunks of the size that `chunk` gives, then gives up what is incomplete. */
template <typename Chunk>
Frames read(std::vector<uint8_t> const& bytes, Chunk chunk, bool thenValid) {
    Frames frames;
    size_t found = 0;
    StreamReader reader(catalogue(), [&](std::vector<uint8_t> const& frame) {
        require(frame.size() <= StreamReader::MAX_FRAME_SIZE);
        found += frame.size();
        frames.push_back(frame);
    });
    for (size_t at = 0; at < bytes.size();) {
        size_t const size = std::min(bytes.size() - at, chunk());
        reader.feed(&bytes[at], size);
        at += size;
    }
    if (thenValid) {
        reader.reset();
        require(found + reader.skippedBytes() == bytes.size());
        auto const valid = FarPeer::encode({1, 2, 2, 3, 4, 5, {6, 7}});
        reader.feed(valid.data(), valid.size());
        require(!frames.empty() && frames.back() == valid);
        frames.pop_back();
    }
    return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::vector<uint8_t> const bytes(data, data + size);
    Frames const whole = read(
            bytes, [&] { return bytes.size(); }, true);
    Frames const single = read(
            bytes, [] { return size_t{1}; }, false);
    size_t next = 0;
    Frames const mixed = read(
            bytes, [&] { return bytes[next++ % bytes.size()] % 97 + size_t{1}; }, true);
    require(whole == single && whole == mixed);
    for (auto const& frame : whole) {
        require(FarPeer::encode(FarPeer::decode(frame)) == frame);
        require(plausible(FarPeer::decode(frame)));
    }
    return 0;
}
