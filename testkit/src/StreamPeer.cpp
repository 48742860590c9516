#include <vesk/testkit/StreamPeer.h>

#include <cstddef>

#include <vesk/VeskProtocol.h>

namespace vesk::testkit {

namespace {

constexpr size_t HEADER = 12;

/** Whether the bytes may begin a frame of this system. */
bool plausible(uint8_t const* bytes) {
    bool const ack = bytes[3] == ACK_ID && bytes[4] == ACK_ID && bytes[5] == ACKNOWLEDGEMENT;
    bool const data =
            (bytes[3] == 1 && bytes[4] >= 1 && bytes[4] <= 13) || (bytes[3] == 2 && bytes[4] == 1);
    return bytes[0] == 'U' && (ack || (data && (bytes[5] == REQUEST || bytes[5] == REPLY)));
}

}  // namespace

std::vector<FarPeer::Frame> StreamPeer::read(uint64_t now, FarPeer::Bytes const& chunk) {
    mStream.insert(mStream.end(), chunk.begin(), chunk.end());
    std::vector<FarPeer::Frame> frames;
    size_t at = 0;
    while (mStream.size() - at >= HEADER) {
        uint8_t const* const rest = &mStream[at];
        if (!plausible(rest)) {
            ++at;
            continue;
        }
        size_t const size = HEADER + rest[1] + rest[2] * size_t{256};
        if (mStream.size() - at < size) break;
        frames.push_back(FarPeer::decode({rest, rest + size}));
        at += size;
        if (!FarPeer::isAck(frames.back()) && !mRandom.chance(mForgets)) {
            mPlans.emplace(now + mRandom.below(700), Plan{now, frames.back().serialNumber});
        }
    }
    mStream.erase(mStream.begin(), mStream.begin() + static_cast<ptrdiff_t>(at));
    return frames;
}

std::vector<FarPeer::Bytes> StreamPeer::dueAcks(uint64_t now) {
    std::vector<FarPeer::Bytes> writes;
    std::vector<FarPeer::Ack> batch;
    auto const end = mPlans.upper_bound(now);
    for (auto plan = mPlans.begin(); plan != end; ++plan) {
        auto const hold = static_cast<uint16_t>(now - plan->second.received);
        batch.push_back({hold, plan->second.serialNumber});
        if (batch.size() < 5 && !mRandom.chance(300)) continue;
        writes.push_back(FarPeer::encode(FarPeer::ackFrame(batch)));
        batch.clear();
    }
    if (!batch.empty()) {
        writes.push_back(FarPeer::encode(FarPeer::ackFrame(batch)));
    }
    mPlans.erase(mPlans.begin(), end);
    return writes;
}

void StreamPeer::reset() {
    mStream.clear();
    mPlans.clear();
}

}  // namespace vesk::testkit
