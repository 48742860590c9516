// nng: a pair, whose messages go back as they came. The conversation is the message's first byte.

#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "Harness.h"

namespace {

using namespace peers;

nng_socket makeSocket() {
    nng_socket socket;
    require(nng_pair0_open(&socket) == 0, "no nng socket");
    nng_socket_set_int(socket, NNG_OPT_SENDBUF, 128);
    nng_socket_set_int(socket, NNG_OPT_RECVBUF, 128);
    return socket;
}

void serve(Channel const& channel, Options const&) {
    nng_socket const socket = makeSocket();
    require(nng_listen(socket, ("ipc://" + channel.path).c_str(), nullptr, 0) == 0, "cannot bind");
    for (nng_msg* message = nullptr;;) {
        require(nng_recvmsg(socket, &message, 0) == 0, "cannot receive");
        require(nng_sendmsg(socket, message, 0) == 0, "cannot send");
    }
}

void ask(Channel const& channel, Options const& options, Load& load) {
    nng_socket const socket = makeSocket();
    std::string const address = "ipc://" + channel.path;
    while (nng_dial(socket, address.c_str(), nullptr, 0) != 0)  // the server has just begun
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    nng_msg* message = nullptr;
    auto const add = [&] {
        auto const request = load.next();
        require(nng_msg_alloc(&message, request.size + 1) == 0, "no message");
        auto* const bytes = static_cast<uint8_t*>(nng_msg_body(message));
        *bytes = uint8_t(request.conversation);
        std::memcpy(bytes + 1, request.data, request.size);
        require(nng_sendmsg(socket, message, 0) == 0, "cannot send");
    };
    for (size_t i = 0; i < options.window; ++i)
        add();
    while (!load.done()) {
        require(nng_recvmsg(socket, &message, 0) == 0, "cannot receive");
        auto const* const bytes = static_cast<uint8_t const*>(nng_msg_body(message));
        bool const another = load.replied(*bytes, bytes + 1, nng_msg_len(message) - 1);
        nng_msg_free(message);
        if (another) add();
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
