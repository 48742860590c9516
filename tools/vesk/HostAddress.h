#pragma once

#include <string>

#include <vesk/client/Client.h>
#include <vesk/hostkit_asio/Endpoint.h>

namespace vesk::tool {

/** Where the client commands find their host, and how they deal with it. */
struct HostAddress {
    /** Throws UsageError. */
    std::string path() const { return hostkit::parseUnixPath("--host", host); }

    client::Client::Options options() const {
        client::Client::Options options;
        options.anyOwner = anyOwner;
        options.reconnect = reconnect;
        return options;
    }

    std::string host;        // unix:PATH
    bool anyOwner = false;   // also one of another user
    bool reconnect = false;  // wait for it when it goes away
};

}  // namespace vesk::tool
