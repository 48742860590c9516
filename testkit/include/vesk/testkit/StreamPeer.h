#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/Random.h>

namespace vesk::testkit {

/**
 * The peer at the far end of a byte stream: finds the frames in it, whatever the chunks and after
 * foreign bytes too, and acknowledges the data frames, each within 700 ms and up to five together.
 * Some it forgets. A frame whose length was damaged takes along what follows it, up to that length.
 *
 * Ownership: uses the Random that decides; that must outlive it.
 * Threads:   one at a time.
 * Times:     ms of any clock that goes forward.
 */
class StreamPeer {
public:
    /** @param forgets thousandths of the data frames that are never acknowledged. */
    StreamPeer(Random& random, unsigned forgets) : mRandom(random), mForgets(forgets) {}

    /** The frames that the chunk completes; their acknowledgements are planned. */
    std::vector<FarPeer::Frame> read(uint64_t now, FarPeer::Bytes const& chunk);

    /** The acknowledgement frames that are to be written now. */
    std::vector<FarPeer::Bytes> dueAcks(uint64_t now);

    /** A new stream begins, and what was planned is forgotten. */
    void reset();

    /** From now on every frame is acknowledged. */
    void forgetNothing() { mForgets = 0; }

private:
    struct Plan {
        uint64_t received;
        uint16_t serialNumber;
    };

    Random& mRandom;
    unsigned mForgets;
    FarPeer::Bytes mStream;
    std::multimap<uint64_t, Plan> mPlans;  // by the time of writing
};

}  // namespace vesk::testkit
