#pragma once

#include "HostAddress.h"

namespace vesk::tool {

/**
 * vesk watch: prints the topics and providers of a host, each change among them and, once a second,
 * the host's counters, until a signal ends it, or until the host goes away, which is a failure
 * unless it is to be waited for.
 */
int runWatch(HostAddress const& address);

}  // namespace vesk::tool
