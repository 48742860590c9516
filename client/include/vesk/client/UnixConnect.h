#pragma once

#include <chrono>
#include <string>

#include <vesk/VeskExport.h>

namespace vesk::client {

/**
 * Connects to the Unix socket at `path`, for so long at most: its owner may live and not accept,
 * and then there is no end to wait for. Blocks.
 *
 * Returns the descriptor, which is the caller's. Throws std::system_error with the reason:
 * std::errc::timed_out where nobody accepted in time, and std::errc::filename_too_long for a path
 * that no socket can have.
 */
VESK_EXPORT int connectUnix(std::string const& path, std::chrono::milliseconds limit);

}  // namespace vesk::client
