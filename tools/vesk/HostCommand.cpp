#include "HostCommand.h"

#include <sys/resource.h>

#include <algorithm>
#include <optional>
#include <utility>

#include <vesk/hostkit_asio/CaptureFile.h>
#include <vesk/hostkit_asio/Host.h>
#include <asio/io_context.hpp>

#include "EndSignals.h"
#include "Errors.h"
#include "HostAddress.h"
#include "HostLog.h"

namespace vesk::tool {

namespace {

// Each client takes a descriptor; a few are the host's own.
void raiseDescriptorLimit() {
    rlimit limit{};
    rlim_t const wanted = hostkit::FlowLimits::CLIENTS + 64;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) return;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::string clientsPath(HostOptions const& options) {
    return hostkit::parseUnixPath("--clients", options.clients.empty()
                                                       ? HostAddress::defaultSocket("--clients")
                                                       : options.clients);
}

}  // namespace

int runHost(HostOptions const& options) {
    raiseDescriptorLimit();
    asio::io_context io;
    neverWaitForStderr();
    EndSignals signals(io);
    signals.async_wait([&io](asio::error_code const&, int) { io.stop(); });
    HostLog log(io);
    hostkit::Host::Options host;
    host.channel = hostkit::Endpoint::parse(options.channel);
    host.listen = options.listen;
    host.clients = clientsPath(options);
    host.topics = options.topics;
    host.localTopics = options.localTopics;
    host.limits = hostkit::FlowLimits(options.memoryMib * hostkit::FlowLimits::MIB);
    host.report = [&log](std::string const& line) { log.say(line); };
    host.access = options.access;
    host.onEnd = [&io] { io.stop(); };
    std::optional<hostkit::CaptureFile> capture;
    if (!options.capture.empty()) {
        capture.emplace(options.capture, options.captureLimit, "vesk host " VESK_VERSION, say);
        host.watcher = &*capture;
    }
    hostkit::Host const running(io, std::move(host));
    io.run();
    return EXIT_OK;
}

}  // namespace vesk::tool
