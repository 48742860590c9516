#pragma once

#include <cstdlib>
#include <string>

#include <vesk/client/Client.h>
#include <vesk/hostkit_asio/Endpoint.h>

#include "Errors.h"

namespace vesk::tool {

/** Where the client commands find their host, and how they deal with it. */
struct HostAddress {
    /** Throws UsageError. */
    std::string path() const {
        return hostkit::parseUnixPath("--host", host.empty() ? defaultSocket("--host") : host);
    }

    /** Where hosts and clients meet that were told of no place. Throws UsageError. */
    static std::string defaultSocket(std::string const& option) {
        char const* const directory = std::getenv("XDG_RUNTIME_DIR");
        if (directory && *directory) return std::string("unix:") + directory + "/vesk-host";
        throw UsageError("give " + option + " unix:PATH: without XDG_RUNTIME_DIR in the " +
                         "environment there is no default");
    }

    client::Client::Options options() const {
        client::Client::Options options;
        options.anyOwner = anyOwner;
        options.reconnect = retry;
        return options;
    }

    std::string host;       // unix:PATH; empty: the default
    bool anyOwner = false;  // also one of another user
    bool retry = false;     // wait for it when it goes away
};

}  // namespace vesk::tool
