#pragma once

#include <functional>
#include <string>

namespace vesk::hostkit {

/**
 * Gets what is worth telling a person: one line without a line break, such as "channel up:
 * unix:/run/peer". It may hold words of other processes, so whoever prints it escapes it first
 * (FrameText::escape). The library prints nothing itself.
 *
 * Threads: called on the one that runs the io_context. Must not be empty.
 */
using Report = std::function<void(std::string const& line)>;

}  // namespace vesk::hostkit
