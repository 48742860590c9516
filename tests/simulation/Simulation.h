#pragma once

#include <cstdint>

#include <vesk/VeskQueue.h>
#include <vesk/testkit/Random.h>

namespace vesk::simulation {

/**
 * The live library, under a clock that stands still, between local clients and a far peer on a link
 * that does what a seed says. It lives through so many minutes, or until the script that decides is
 * used up; then the link is clean and quiet, and nothing may remain. After each event the looper is
 * waited for, and only one thread acts at a time, so that nothing depends on the machine. The first
 * difference between the library and the models ends the process.
 */
void simulate(testkit::Random script, uint64_t minutes);

/**
 * Whether the queue's looper sleeps and has time left to; ends its wait where the simulated time
 * for it is over. Nobody else wakes it: a deadline that the looper does not keep in mind, or a
 * change that it is not told of, is missed. Where the waits of this platform cannot be taken over,
 * the `first` call of a series wakes it instead.
 */
bool asleep(VeskQueue& queue, bool first);

}  // namespace vesk::simulation
