#pragma once

#include <cstddef>
#include <string>

#include "HostAddress.h"

namespace vesk::tool {

struct ProvideOptions {
    HostAddress address;
    std::string business;  // TOPIC/BUSINESS
    bool echo = false;     // answer each request with its own payload
    std::string command;   // or with what this shell command makes of it
    size_t jobs = 4;       // commands that run at once
    size_t jobTimeoutMillis = 60000;
};

/**
 * vesk provide: answers the requests of one business until a signal ends it, or until the host
 * goes away, which is a failure unless it is to be waited for.
 */
int runProvide(ProvideOptions const& options);

}  // namespace vesk::tool
