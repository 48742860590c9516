#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include <vesk/testkit/FarPeer.h>

#include "Link.h"

namespace vesk::simulation {

/** The peer at the far end of the channel: cuts the stream into frames and acknowledges, or not. */
class FarSide {
public:
    using Frame = testkit::FarPeer::Frame;

    explicit FarSide(Random& random) : mRandom(random) {}

    /** The frames that the chunk completes; acknowledgements of some are planned. */
    std::vector<Frame> read(uint64_t now, Bytes const& chunk);

    /** The acknowledgement frames whose time has come. */
    std::vector<Bytes> dueAcks(uint64_t now);

    void reset();

    /** From now on every frame is acknowledged. */
    void forgetNothing() { mForgets = 0; }

private:
    struct Plan {
        uint64_t received;
        uint16_t serialNumber;
    };

    Random& mRandom;
    unsigned mForgets = 100;  // thousandths of the frames
    Bytes mStream;
    std::multimap<uint64_t, Plan> mPlans;  // by the time of sending
};

}  // namespace vesk::simulation
