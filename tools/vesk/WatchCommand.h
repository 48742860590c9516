#pragma once

#include <string>

namespace vesk::tool {

/**
 * vesk watch: prints the topics and providers of a host, each change among them and, once a second,
 * the host's counters, until SIGINT or SIGTERM, or until the host goes away, which is a failure.
 */
int runWatch(std::string const& host);

}  // namespace vesk::tool
