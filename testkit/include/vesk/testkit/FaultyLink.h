#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include <vesk/testkit/Random.h>

namespace vesk::testkit {

/**
 * One direction of a byte channel that loses, doubles, delays, reorders and corrupts what is
 * written to it, and hands the bytes out in other chunks than they went in.
 *
 * Ownership: uses the Random that decides; that must outlive it.
 * Threads:   one at a time.
 * Times:     ms of any clock that goes forward.
 */
class FaultyLink {
public:
    using Bytes = std::vector<uint8_t>;

    /**
     * What happens to one write, each in thousandths; all zero: nothing is lost or changed, and all
     * arrives in the order of writing.
     */
    struct Faults {
        unsigned drop = 0;
        unsigned duplicate = 0;  // a second copy, up to 49 ms behind the first
        unsigned corrupt = 0;    // up to three of its bytes
        unsigned reorder = 0;    // may overtake what was written before it and is still under way
        size_t maxDelay = 20;    // ms
    };

    FaultyLink(Random& random, Faults faults) : mRandom(random), mFaults(faults) {}

    void write(uint64_t now, Bytes bytes);

    /** The chunks, of 1 to 200 bytes, that have arrived by `now`. */
    std::vector<Bytes> read(uint64_t now);

    /** The link goes away: what is on it is lost. */
    void cut() { mUnderWay.clear(); }

    /** What is written from now on is delayed at most, as before. */
    void mend() { mFaults = {0, 0, 0, 0, mFaults.maxDelay}; }

private:
    void corrupt(Bytes& bytes);
    std::vector<Bytes> recut(Bytes const& stream);

    Random& mRandom;
    Faults mFaults;
    uint64_t mLastArrival = 0;
    std::multimap<uint64_t, Bytes> mUnderWay;  // by time of arrival
};

}  // namespace vesk::testkit
