#pragma once

#include <cstddef>
#include <string>

namespace vesk::tool {

struct DemoOptions {
    size_t requests = 1000;  // for each business
    bool verbose = false;    // let the processes' own lines through
    std::string program = "/proc/self/exe";
};

/**
 * vesk demo: two hosts joined by a socket, a provider for every business on the far side and a
 * consumer for every business on the near side, all real processes of this program. Prints what
 * came of it; returns 0 only when every reply came and was right.
 */
int runDemo(DemoOptions const& options);

}  // namespace vesk::tool
