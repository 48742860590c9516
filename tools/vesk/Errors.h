#pragma once

#include <stdexcept>

#include "Output.h"

namespace vesk::tool {

/**
 * The user asked for something that cannot be: ends the command with status 2. The libraries throw
 * the same.
 */
using UsageError = std::invalid_argument;

/** Exit statuses of every command. */
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_INTERRUPTED = 130;

}  // namespace vesk::tool
