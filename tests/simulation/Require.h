#pragma once

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include <quillex/SystemClock.h>

namespace vesk::simulation {

inline uint64_t now() {
    return quillex::SystemClock::uptimeMillis();
}

template <typename... Parts>
std::string text(Parts const&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

/** Ends the process at the first difference: the library may be in no state to be taken down. */
template <typename... Parts>
void require(bool holds, Parts const&... otherwise) {
    if (holds) return;
    std::cerr << "failed at " << now() << " ms: " << text(otherwise...) << std::endl;
    std::abort();
}

}  // namespace vesk::simulation
