#pragma once

#include <vesk/VeskQueue.h>

namespace vesk::simulation {

/**
 * Whether the queue's looper sleeps and has time left to; ends its wait where the simulated time
 * for it is over. Nobody else wakes it: a deadline that the looper does not keep in mind, or a
 * change that it is not told of, is missed. Where the waits of this platform cannot be taken over,
 * the first call of each `round` wakes it instead.
 */
bool asleep(VeskQueue& queue, uint64_t round);

}  // namespace vesk::simulation
