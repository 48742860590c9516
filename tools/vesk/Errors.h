#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

namespace vesk::tool {

/** The user asked for something that cannot be: ends the command with status 2. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** Exit statuses of every command. */
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_INTERRUPTED = 130;

/** One line for the person at the terminal; stdout stays free for data. */
inline void say(std::string const& line) {
    std::fprintf(stderr, "vesk: %s\n", line.c_str());
}

}  // namespace vesk::tool
