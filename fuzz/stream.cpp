// The host kit's reader: in any chunks and with silences the same frames at the same places, no
// byte in two of them or in none, and nothing that comes before a silence hides what comes behind
// it.

#include <vesk/hostkit/FrameReader.h>
#include <vesk/testkit/FarPeer.h>

#include <algorithm>
#include <cstdlib>

namespace {

using vesk::hostkit::FrameReader;
using vesk::testkit::FarPeer;
using Bytes = FarPeer::Bytes;
using Frames = std::vector<Bytes>;

void require(bool holds) {
    if (!holds) std::abort();
}

/**
 * Feeds the parts in chunks of the size that `chunk` gives; the reader hears silence after each.
 */
template <typename Chunk>
Frames read(std::vector<Bytes> const& parts, Chunk chunk) {
    static vesk::VeskConfig const catalogue;
    Frames frames;
    size_t fed = 0, found = 0;
    FrameReader reader(catalogue, [&](auto const& frame) {
        frame->serialze(frames.emplace_back());
        found += frames.back().size();
    });
    for (Bytes const& part : parts) {
        for (size_t at = 0, size = 0; at < part.size(); at += size) {
            size = std::min(part.size() - at, chunk());
            reader.feed(&part[at], size);
        }
        if (reader.incomplete()) reader.abandon();
        fed += part.size();
        require(!reader.incomplete() && found + reader.skippedBytes() == fed);
    }
    return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    Bytes const bytes(data, data + size);
    Bytes const valid = FarPeer::encode({1, 2, 2, 3, 4, 5, {6, 7}});
    Bytes stream(bytes);
    stream.insert(stream.end(), valid.begin(), valid.end());
    size_t next = 0;
    for (auto const& parts : {std::vector<Bytes>{stream}, std::vector<Bytes>{bytes, valid}}) {
        Frames const frames = read(parts, [&] { return stream.size(); });
        require(read(parts, [] { return size_t{1}; }) == frames);
        require(read(parts, [&] { return stream[next++ % stream.size()] % 97 + size_t{1}; }) ==
                frames);
        require(parts.size() == 1 || (!frames.empty() && frames.back() == valid));
    }
    // Without a magic byte before it, nothing may delay or hide the valid frame.
    std::replace_copy(data, data + size, stream.begin(), uint8_t{'U'}, uint8_t{'u'});
    require(read({stream}, [&] { return stream.size(); }) == Frames{valid});
    return 0;
}
