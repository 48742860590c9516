#pragma once

#include <string>

#include "Load.h"

namespace peers {

/** The one stream between the two processes. A contender uses the end or the path. */
struct Channel {
    int end;           // of a connected pair of Unix stream sockets; blocking
    std::string path;  // in a folder of this run's own, for a Unix socket of the contender's
};

/** Answers each request with its own bytes, until it is killed. */
using Serve = void (*)(Channel const& channel, Options const& options);
/** Asks what the load wants asked; returns when load.done(). */
using Ask = void (*)(Channel const& channel, Options const& options, Load& load);

/**
 * The `main` of a contender: the child process serves, the parent asks and prints one line of JSON
 * with what was measured, of the processor's time and of memory for both processes together.
 */
int run(int argc, char** argv, Serve serve, Ask ask);

/** What the arguments behind the program's name ask for; a wrong one ends the process. */
Options optionsFrom(int argc, char** argv);

/** Writes everything; a failure ends the process. */
void writeAll(int channel, uint8_t const* bytes, size_t size);
/** Reads what there is, at least a byte; the end of the stream ends the process. */
size_t readSome(int channel, uint8_t* bytes, size_t size);
/** Ends the process with a message where a library has refused. */
void require(bool fine, char const* what);

}  // namespace peers
