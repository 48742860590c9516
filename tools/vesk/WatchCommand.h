#pragma once

#include "HostAddress.h"

namespace vesk::tool {

struct WatchOptions {
    HostAddress address;
    bool json = false;
};

/**
 * vesk watch: prints the topics and providers of a host, what comes and goes there, and the host's
 * counters whenever they have changed, until a signal ends it, or until the host goes away, which
 * is a failure unless it is to be waited for. On a terminal the counters stay in their place.
 */
int runWatch(WatchOptions const& options);

}  // namespace vesk::tool
