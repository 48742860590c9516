// The reference host's reader, in any chunks and with silences, against one that sees at once all
// that came before each silence: the same frames, and of all other bytes the same ones held back.

#include <StreamReader.h>
#include <vesk/testkit/FarPeer.h>

#include <algorithm>
#include <cstdlib>

namespace {

using vesk::VeskConfig;
using vesk::testkit::FarPeer;
using vesk::tool::StreamReader;
using Bytes = FarPeer::Bytes;
using Frames = std::vector<Bytes>;

void require(bool holds) {
    if (!holds) std::abort();
}

VeskConfig const& catalogue() {
    static VeskConfig const config;
    return config;
}

/** The length of a frame that may start here; 0: none can. 12 while its header is not whole. */
size_t frameSize(uint8_t const* at, size_t left) {
    if (at[0] != 'U') return 0;
    if (left < 12) return 12;
    size_t const payload = at[1] + at[2] * size_t{256};
    bool const ack = at[3] == 0xAA && at[4] == 0xAA && at[5] == 1 &&
                     payload == (at[6] + at[7] * size_t{256}) * 4;
    bool const data = (at[5] == 2 || at[5] == 3) && catalogue().isBussinessSupport(at[3], at[4]);
    return ack || data ? 12 + payload : 0;
}

struct Expected {
    Frames frames;
    Bytes held;
    uint64_t skipped = 0;
    bool afterForeign = false;

    void hearThenSilence(Bytes const& bytes) {
        held.insert(held.end(), bytes.begin(), bytes.end());
        size_t at = 0;
        for (bool givingUp = false; at < held.size();) {
            size_t const left = held.size() - at;
            size_t const size = frameSize(&held[at], left);
            if (size > left && !afterForeign && !givingUp) break;  // it may be long in coming
            givingUp = givingUp || size > left;
            afterForeign = size == 0 || size > left;
            if (!afterForeign) frames.emplace_back(&held[at], &held[at] + size);
            skipped += afterForeign ? 1 : 0;
            at += afterForeign ? 1 : size;
        }
        held.erase(held.begin(), held.begin() + static_cast<ptrdiff_t>(at));
    }
};

/** Feeds the parts in chunks of the size that `chunk` gives; the host hears silence after each. */
template <typename Chunk>
Frames check(std::vector<Bytes> const& parts, Chunk chunk) {
    Expected expected;
    Frames frames;
    StreamReader reader(catalogue(), [&](Bytes const& frame) { frames.push_back(frame); });
    for (Bytes const& part : parts) {
        for (size_t at = 0, size = 0; at < part.size(); at += size) {
            size = std::min(part.size() - at, chunk());
            reader.feed(&part[at], size);
        }
        if (reader.doubtful()) reader.abandon();
        expected.hearThenSilence(part);
        require(frames == expected.frames && reader.skippedBytes() == expected.skipped);
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
        check(parts, [&] { return stream.size(); });
        check(parts, [] { return size_t{1}; });
        check(parts, [&] { return stream[next++ % stream.size()] % 97 + size_t{1}; });
    }
    // Without a magic byte before it, nothing may delay or hide the valid frame.
    std::replace_copy(data, data + size, stream.begin(), uint8_t{'U'}, uint8_t{'u'});
    require(check({stream}, [&] { return stream.size(); }) == Frames{valid});
    return 0;
}
