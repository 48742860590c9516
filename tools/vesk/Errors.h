#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include <vesk/hostkit/FrameText.h>

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

/**
 * One line for the person at the terminal; stdout stays free for data. Words in it may come from
 * other processes, so what a terminal would act on is escaped.
 */
inline void say(std::string const& line) {
    std::fprintf(stderr, "vesk: %s\n", hostkit::FrameText::escape(line).c_str());
}

}  // namespace vesk::tool
