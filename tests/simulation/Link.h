#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "Random.h"

namespace vesk::simulation {

using Bytes = std::vector<uint8_t>;

/** What a link does to the frames that it carries, each in thousandths; all zero: it is lossless.
 */
struct LinkFaults {
    unsigned drop = 0;
    unsigned duplicate = 0;
    unsigned corrupt = 0;
    unsigned reorder = 0;
    uint64_t maxDelay = 20;  // ms

    bool lossless() const { return drop + duplicate + corrupt + reorder == 0; }
};

/**
 * One direction of the byte channel. Bytes come out after a delay, cut into other chunks than they
 * went in; what the faults say happens to whole writes on the way.
 */
class Link {
public:
    Link(Random& random, LinkFaults faults) : mRandom(random), mFaults(faults) {}

    void write(uint64_t now, Bytes bytes);

    /** The chunks that have arrived by `now`. */
    std::vector<Bytes> read(uint64_t now);

    /** The link goes away: what is on it is lost. */
    void cut() { mUnderWay.clear(); }

    /** From now on the link is lossless. */
    void mend() { mFaults = {}; }

private:
    void put(uint64_t at, Bytes bytes);
    std::vector<Bytes> recut(Bytes const& stream);

    Random& mRandom;
    LinkFaults mFaults;
    uint64_t mLastArrival = 0;
    std::multimap<uint64_t, Bytes> mUnderWay;  // by time of arrival
};

}  // namespace vesk::simulation
