#include <vesk/testkit/FaultyLink.h>

#include <algorithm>
#include <utility>

namespace vesk::testkit {

void FaultyLink::write(uint64_t now, Bytes bytes) {
    if (mRandom.chance(mFaults.drop)) {
        return;
    }
    if (mRandom.chance(mFaults.corrupt) && !bytes.empty()) {
        corrupt(bytes);
    }
    uint64_t arrival = now + mRandom.below(mFaults.maxDelay + 1);
    bool const twice = mRandom.chance(mFaults.duplicate);
    uint64_t const between = twice ? mRandom.below(50) : 0;
    if (!mRandom.chance(mFaults.reorder)) {
        mLastArrival = arrival = std::max(mLastArrival, arrival);
    }
    // Behind the arrival that keeps the order: a copy must not overtake where nothing else may.
    if (twice) mUnderWay.emplace(arrival + between, bytes);
    mUnderWay.emplace(arrival, std::move(bytes));
}

void FaultyLink::corrupt(Bytes& bytes) {
    Bytes const written = bytes;
    while (bytes == written) {  // one change can undo another
        for (size_t flips = mRandom.between(1, 3); flips > 0; --flips) {
            bytes[mRandom.below(bytes.size())] ^= static_cast<uint8_t>(mRandom.between(1, 255));
        }
    }
}

std::vector<FaultyLink::Bytes> FaultyLink::read(uint64_t now) {
    Bytes stream;
    auto const end = mUnderWay.upper_bound(now);
    for (auto write = mUnderWay.begin(); write != end; ++write) {
        stream.insert(stream.end(), write->second.begin(), write->second.end());
    }
    mUnderWay.erase(mUnderWay.begin(), end);
    return recut(stream);
}

std::vector<FaultyLink::Bytes> FaultyLink::recut(Bytes const& stream) {
    std::vector<Bytes> chunks;
    for (size_t at = 0; at < stream.size();) {
        size_t const size = std::min(stream.size() - at, mRandom.between(1, 200));
        auto const from = stream.begin() + static_cast<ptrdiff_t>(at);
        chunks.emplace_back(from, from + static_cast<ptrdiff_t>(size));
        at += size;
    }
    return chunks;
}

}  // namespace vesk::testkit
