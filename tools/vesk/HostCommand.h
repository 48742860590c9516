#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <vesk/hostkit_asio/SocketAccess.h>

namespace vesk::tool {

struct HostOptions {
    std::string channel;  // an endpoint
    bool listen = false;
    std::string clients;  // unix:PATH; empty: the default
    std::vector<std::string> topics;
    std::vector<std::string> localTopics;
    hostkit::SocketAccess access;       // to the sockets that it creates
    std::string capture;                // a file; empty: nothing is recorded
    uint64_t captureLimit = 100000000;  // bytes
    size_t memoryMib = 64;              // that it may hold for clients and peer
};

/**
 * vesk host: owns one byte channel and serves local clients until a signal ends it.
 *
 * Returns the exit status. Throws UsageError and std::runtime_error.
 */
int runHost(HostOptions const& options);

}  // namespace vesk::tool
