#pragma once

#include "HostAddress.h"

namespace vesk::tool {

struct StatusOptions {
    HostAddress address;
    bool json = false;
    bool watch = false;  // print it again every second
};

/**
 * vesk status: prints all that can be counted about a host, and what is probably wrong. Returns the
 * exit status. Throws UsageError and std::runtime_error.
 */
int runStatus(StatusOptions const& options);

}  // namespace vesk::tool
