// sd-bus, from process to process without a daemon: each request is a method call with an array of
// bytes. The conversation is the object.

#include <systemd/sd-bus.h>

#include <cstdlib>

#include "Harness.h"

namespace {

using namespace peers;

constexpr char const* INTERFACE = "peer.Echo";

int echo(sd_bus_message* call, void*, sd_bus_error*) {
    void const* data = nullptr;
    size_t size = 0;
    require(sd_bus_message_read_array(call, 'y', &data, &size) >= 0, "cannot read");
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    sd_bus_message_append_array(reply, 'y', data, size);
    int const result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result < 0 ? result : 1;
}

sd_bus_vtable const METHODS[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Echo", "ay", "ay", echo, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};

sd_bus* makeBus(int end, bool serves) {
    sd_bus* bus = nullptr;
    sd_id128_t id;
    sd_id128_randomize(&id);
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, end, end);
    if (serves) sd_bus_set_server(bus, 1, id);
    require(sd_bus_start(bus) >= 0, "the bus does not start");
    return bus;
}

std::string pathOf(size_t conversation) {
    return "/c/" + std::to_string(conversation);
}

/** Handles messages until there are none, or until `isDone`; then waits for more. */
template <typename Done>
void work(sd_bus* bus, Done const& isDone) {
    while (!isDone()) {
        int const result = sd_bus_process(bus, nullptr);
        bool const waits = result == 0 && !isDone();
        bool const goesOn = result >= 0 && (!waits || sd_bus_wait(bus, UINT64_MAX) >= 0);
        if (!goesOn) std::_Exit(1);  // the other process has ended
    }
}

void serve(Channel const& channel, Options const&) {
    sd_bus* const bus = makeBus(channel.end, true);
    for (size_t i = 0; i < Load::CONVERSATIONS; ++i)
        sd_bus_add_object_vtable(bus, nullptr, pathOf(i).c_str(), INTERFACE, METHODS, nullptr);
    work(bus, [] { return false; });
}

class Client;

/** What a reply comes back to. */
struct Conversation {
    Client* client;
    size_t number;
    std::string path;
};

class Client {
public:
    Client(sd_bus* bus, Load& load) : mBus(bus), mLoad(load) {
        for (size_t i = 0; i < Load::CONVERSATIONS; ++i)
            mConversations.push_back({this, i, pathOf(i)});
    }

    void ask() {
        auto const request = mLoad.next();
        Conversation& conversation = mConversations[request.conversation];
        sd_bus_message* call = nullptr;
        sd_bus_message_new_method_call(mBus, &call, nullptr, conversation.path.c_str(), INTERFACE,
                                       "Echo");
        sd_bus_message_append_array(call, 'y', request.data, request.size);
        require(sd_bus_call_async(mBus, nullptr, call, onReply, &conversation, UINT64_MAX) >= 0,
                "cannot call");
        sd_bus_message_unref(call);
    }

private:
    static int onReply(sd_bus_message* reply, void* conversation, sd_bus_error*) {
        auto const& from = *static_cast<Conversation*>(conversation);
        void const* data = nullptr;
        size_t size = 0;
        require(sd_bus_message_read_array(reply, 'y', &data, &size) >= 0, "cannot read");
        if (from.client->mLoad.replied(from.number, data, size)) from.client->ask();
        return 1;
    }

    sd_bus* const mBus;
    Load& mLoad;
    std::vector<Conversation> mConversations;
};

void ask(Channel const& channel, Options const& options, Load& load) {
    sd_bus* const bus = makeBus(channel.end, false);
    Client client(bus, load);
    for (size_t i = 0; i < options.window; ++i)
        client.ask();
    work(bus, [&] { return load.done(); });
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
