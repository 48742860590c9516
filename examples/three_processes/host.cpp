// A host: the process that owns a channel and serves local clients.

#include <vesk/hostkit/FrameText.h>
#include <vesk/hostkit_asio/Host.h>

#include <asio/signal_set.hpp>
#include <csignal>
#include <iostream>

using vesk::hostkit::Endpoint;
using vesk::hostkit::FrameText;
using vesk::hostkit::Host;

int main(int argc, char** argv) try {
    if (argc != 3) {
        std::cerr << "usage: host CHANNEL SOCKET, with a CHANNEL like stdio: or tty:/dev/ttyS0\n";
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a peer that is gone shows as an error of the write
    asio::io_context io;
    asio::signal_set ends(io, SIGINT, SIGTERM);
    ends.async_wait([&io](asio::error_code const&, int) { io.stop(); });

    Host::Options options;
    options.channel = Endpoint::parse(argv[1]);
    options.clients = argv[2];
    options.report = [](std::string const& line) {
        std::cerr << "host: " << FrameText::escape(line) << "\n";
    };
    options.onEnd = [&io] { io.stop(); };
    Host const host(io, options);
    io.run();
} catch (std::exception const& error) {
    std::cerr << "host: " << error.what() << "\n";
    return 1;
}
