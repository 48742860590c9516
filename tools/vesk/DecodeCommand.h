#pragma once

#include <string>

namespace vesk::tool {

struct DecodeOptions {
    std::string file = "-";
    bool hex = false;
    bool json = false;
    bool follow = false;
};

/**
 * vesk decode: prints a line for each frame in the bytes of a channel, or in a capture of one.
 *
 * Returns the exit status: a failure where bytes belong to no frame or a peer would not act on a
 * frame. Throws UsageError and std::runtime_error.
 */
int runDecode(DecodeOptions const& options);

}  // namespace vesk::tool
