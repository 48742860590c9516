// A provider: a local process that answers the requests of one business. It asks the host that owns
// the channel for its place, and when the host is started anew, it goes there again by itself.

#include <vesk/client/Client.h>

#include <algorithm>
#include <csignal>
#include <iostream>

using namespace vesk::client;

int main(int argc, char** argv) try {
    if (argc != 3) {
        std::cerr << "usage: provider SOCKET TOPIC/BUSINESS\n";
        return 2;
    }
    sigset_t ends;  // blocked before the client makes its thread, so that this one gets them
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    Client::Options options;
    options.reconnect = true;
    options.onLost = [](std::string const& why) { std::cerr << why << "; trying again\n"; };
    Client client(argv[1], options);
    client.serve(BusinessName::parse(argv[2]), [](Bytes request, Responder const& responder) {
        std::reverse(request.begin(), request.end());
        responder.reply(request);
    });
    std::cout << "providing " << argv[2] << std::endl;
    int signal = 0;
    sigwait(&ends, &signal);
} catch (std::exception const& error) {
    std::cerr << "provider: " << error.what() << "\n";
    return 1;
}
