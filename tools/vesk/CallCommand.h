#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "HostAddress.h"

namespace vesk::tool {

struct CallOptions {
    HostAddress address;
    std::string business;             // TOPIC/BUSINESS
    std::optional<std::string> data;  // the payload; else the file's content; else stdin's
    std::string file;
    std::optional<size_t> randomSize;  // random payloads up to this size instead
    size_t count = 1;
    size_t window = 1;
    size_t timeoutMillis = 5000;
    size_t joinTimeoutMillis = 10000;
    bool verify = false;  // each reply must equal its request
    bool stats = false;
    bool report = false;
    bool hex = false;           // print each reply as a line of hex digits
    bool lines = false;         // each line of the payload is a request
    size_t intervalMillis = 0;  // between the requests
};

/**
 * vesk call: sends requests to a business and prints the replies. Returns 0 only when every reply
 * came (and, with `verify`, was right), and else a status that says what was wrong.
 */
int runCall(CallOptions const& options);

}  // namespace vesk::tool
