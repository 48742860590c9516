// A chain of ZeroMQ processes, as a caller, two hosts and a provider are with libvesk:
//     peer_zeromq_chain worker ADDRESS       answers what the proxy at the address hands on
//     peer_zeromq_chain proxy FRONT BACK     binds both, and joins them
//     peer_zeromq_chain link FRONT BACK      the same, but connects to the next proxy at BACK
//     peer_zeromq_chain dealer ADDRESS ...   asks; the options of the other programs follow

#include <zmq.h>

#include <cstdio>
#include <cstring>

#include "Harness.h"

namespace {

using namespace peers;

void* makeSocket(void* context, int type, char const* address, bool binds) {
    void* const socket = zmq_socket(context, type);
    int const result = binds ? zmq_bind(socket, address) : zmq_connect(socket, address);
    require(result == 0, "cannot bind or connect");
    return socket;
}

[[noreturn]] void work(void* context, char const* address) {
    void* const worker = makeSocket(context, ZMQ_DEALER, address, false);
    for (zmq_msg_t message;;) {  // whose they are comes first, a part for each proxy
        zmq_msg_init(&message);
        require(zmq_msg_recv(&message, worker, 0) >= 0, "cannot receive");
        int const more = zmq_msg_more(&message) ? ZMQ_SNDMORE : 0;
        require(zmq_msg_send(&message, worker, more) >= 0, "cannot send");
    }
}

void ask(void* context, char const* address, Options const& options) {
    void* const dealer = makeSocket(context, ZMQ_DEALER, address, false);
    Load load(options, [] {});
    auto const add = [&] {
        auto const request = load.next();
        std::vector<uint8_t> bytes{uint8_t(request.conversation)};
        bytes.insert(bytes.end(), request.data, request.data + request.size);
        require(zmq_send(dealer, bytes.data(), bytes.size(), 0) >= 0, "cannot send");
    };
    for (size_t i = 0; i < options.window; ++i)
        add();
    while (!load.done()) {
        zmq_msg_t message;
        zmq_msg_init(&message);
        require(zmq_msg_recv(&message, dealer, 0) > 0, "cannot receive");
        auto const* const bytes = static_cast<uint8_t const*>(zmq_msg_data(&message));
        if (load.replied(*bytes, bytes + 1, zmq_msg_size(&message) - 1)) add();
        zmq_msg_close(&message);
    }
    std::printf("{\"rate\": %.0f, \"p50\": %.2f, \"p99\": %.2f}\n", load.requestsPerSecond(),
                load.percentile(50), load.percentile(99));
}

}  // namespace

int main(int argc, char** argv) {
    require(argc > 2, "give a role and an address");
    void* const context = zmq_ctx_new();
    std::string const role = argv[1];
    if (role == "worker") work(context, argv[2]);
    if (role == "dealer") {
        ask(context, argv[2], optionsFrom(argc - 2, argv + 2));
        std::fflush(stdout);
        std::_Exit(0);  // nothing is under way any more
    }
    require(argc == 4 && (role == "proxy" || role == "link"), "give a role with its addresses");
    void* const front = makeSocket(context, ZMQ_ROUTER, argv[2], true);
    void* const back = makeSocket(context, ZMQ_DEALER, argv[3], role == "proxy");
    return zmq_proxy(front, back, nullptr);
}
