#pragma once

#include <cstddef>
#include <string>

namespace vesk::tool {

struct ProvideOptions {
    std::string host;      // unix:PATH
    std::string business;  // TOPIC/BUSINESS
    bool echo = false;     // answer each request with its own payload
    std::string command;   // or with what this shell command makes of it
    size_t jobs = 4;       // commands that run at once
};

/**
 * vesk provide: answers the requests of one business until SIGINT or SIGTERM, or until the host
 * goes away, which is a failure.
 */
int runProvide(ProvideOptions const& options);

}  // namespace vesk::tool
