#pragma once

#include <stdexcept>

#include "Output.h"

namespace vesk::tool {

/**
 * The user asked for something that cannot be: ends the command with status 2. The libraries throw
 * the same.
 */
using UsageError = std::invalid_argument;

/** There is no host at the socket, or it went away, or it does not answer. */
class NoHost : public std::runtime_error {
public:
    explicit NoHost(std::exception const& cause) : std::runtime_error(cause.what()) {}
};

/** Exit statuses of every command. */
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

/** Exit statuses of vesk call besides: there is no host, and why a request got no reply. */
constexpr int EXIT_NO_HOST = 3;
constexpr int EXIT_CHANNEL_DOWN = 4;
constexpr int EXIT_NO_PROVIDER = 5;
constexpr int EXIT_NOT_ACKNOWLEDGED = 6;
constexpr int EXIT_NOT_ANSWERED = 7;
constexpr int EXIT_INTERRUPTED = 130;

}  // namespace vesk::tool
