// ZeroMQ: a dealer that asks and a router that answers. The conversation is the message's first
// byte.

#include <zmq.h>

#include <cstring>

#include "Harness.h"

namespace {

using namespace peers;

void* makeSocket(int type) {
    void* const socket = zmq_socket(zmq_ctx_new(), type);
    require(socket != nullptr, "no ZeroMQ socket");
    return socket;
}

void serve(Channel const& channel, Options const&) {
    void* const router = makeSocket(ZMQ_ROUTER);
    require(zmq_bind(router, ("ipc://" + channel.path).c_str()) == 0, "cannot bind");
    for (zmq_msg_t message;;) {  // whose from, then what
        zmq_msg_init(&message);
        require(zmq_msg_recv(&message, router, 0) >= 0, "cannot receive");
        int const more = zmq_msg_more(&message) ? ZMQ_SNDMORE : 0;
        require(zmq_msg_send(&message, router, more) >= 0, "cannot send");
    }
}

void ask(Channel const& channel, Options const& options, Load& load) {
    void* const dealer = makeSocket(ZMQ_DEALER);
    require(zmq_connect(dealer, ("ipc://" + channel.path).c_str()) == 0, "cannot connect");
    auto const add = [&] {
        auto const request = load.next();
        zmq_msg_t message;
        zmq_msg_init_size(&message, request.size + 1);
        auto* const bytes = static_cast<uint8_t*>(zmq_msg_data(&message));
        *bytes = uint8_t(request.conversation);
        std::memcpy(bytes + 1, request.data, request.size);
        require(zmq_msg_send(&message, dealer, 0) >= 0, "cannot send");
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
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
