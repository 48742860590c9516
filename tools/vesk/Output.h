#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vesk::tool {

/**
 * Gives 0, 1 and 2 to those of stdin, stdout and stderr that are closed, in a way in which reading
 * and writing them fails. Otherwise the next file or socket would get the number, and with it what
 * was meant for the terminal. Call it before anything is opened.
 */
void openStandardStreams();

/**
 * Hands over everything that was printed to stdout; throws std::runtime_error where it has not all
 * been taken, now or earlier.
 */
void flushOutput();

/**
 * Throws the same where nobody will read what is printed to a pipe, also when nothing is printed.
 */
void checkOutput();

/** Columns of the terminal that stdout is; 80 where that is not known. */
size_t terminalWidth();

/** A delay that a host has measured, in words: it counts TIMEOUT_DELAY_MS where there was none. */
std::string delayText(uint64_t millis);

/**
 * One line for the person at the terminal; stdout stays free for data. Words in it may come from
 * other processes, so what a terminal would act on is escaped, and a line has a bounded length.
 *
 * Threads: any.
 */
void say(std::string const& line);

/** Prints a line of the library's to stderr, as say() does. The type is that of its log sink. */
void printLogLine(char const* tag, char const* message);

/**
 * From now on no line to stderr waits for whoever reads it: a process that others depend on must
 * not stop because its terminal did. Lines that find no room are counted, and the next one that
 * does is preceded by their number.
 */
void neverWaitForStderr();

}  // namespace vesk::tool
