#pragma once

#include "HostAddress.h"

namespace vesk::tool {

struct ListOptions {
    HostAddress address;  // without a host, only the catalogue is listed
    bool json = false;
};

/**
 * vesk list: prints the catalogue, a line for each business; with a host, also which it serves, to
 * how many clients. Returns the exit status. Throws UsageError and std::runtime_error.
 */
int runList(ListOptions const& options);

}  // namespace vesk::tool
