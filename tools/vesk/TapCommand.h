#pragma once

#include <string>
#include <vector>

#include "HostAddress.h"

namespace vesk::tool {

struct TapOptions {
    HostAddress address;
    std::vector<std::string> filters;
    std::string file;  // of the capture; empty: print
    bool json = false;
};

/**
 * vesk tap: prints or records the frames that a host's channel carries, until it is interrupted.
 * Returns the exit status. Throws UsageError and std::runtime_error.
 */
int runTap(TapOptions const& options);

}  // namespace vesk::tool
