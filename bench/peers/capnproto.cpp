// Cap'n Proto: each request is a call, and each conversation an object of its own.

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>

#include "Echo.capnp.h"
#include "Harness.h"

namespace {

using namespace peers;

class EchoServer final : public Echo::Server {
    kj::Promise<void> echo(EchoContext context) override {
        auto const payload = context.getParams().getPayload();
        context.initResults(capnp::MessageSize{payload.size() / 8 + 8, 0}).setPayload(payload);
        return kj::READY_NOW;
    }
    kj::Promise<void> conversation(ConversationContext context) override {
        context.getResults().setEcho(kj::heap<EchoServer>());
        return kj::READY_NOW;
    }
};

void serve(Channel const& channel, Options const&) {
    auto io = kj::setupAsyncIo();
    capnp::TwoPartyServer server(kj::heap<EchoServer>());
    server.accept(io.lowLevelProvider->wrapSocketFd(channel.end));
    kj::NEVER_DONE.wait(io.waitScope);
}

class Client : private kj::TaskSet::ErrorHandler {
public:
    Client(Load& load, Echo::Client bootstrap) : mLoad(load), mTasks(*this) {
        for (uint32_t i = 0; i < Load::CONVERSATIONS; ++i) {
            auto request = bootstrap.conversationRequest();
            request.setNumber(i);
            mConversations.push_back(request.send().getEcho());
        }
    }

    void ask() {
        auto const request = mLoad.next();
        auto call = mConversations[request.conversation].echoRequest(
                capnp::MessageSize{request.size / 8 + 8, 0});
        call.setPayload(kj::arrayPtr(request.data, request.size));
        mTasks.add(call.send().then([this, from = request.conversation](auto&& reply) {
            auto const payload = reply.getPayload();
            if (mLoad.replied(from, payload.begin(), payload.size())) ask();
        }));
    }

    kj::Promise<void> done() { return mTasks.onEmpty(); }

private:
    void taskFailed(kj::Exception&&) override { require(false, "a call has failed"); }

    Load& mLoad;
    std::vector<Echo::Client> mConversations;
    kj::TaskSet mTasks;
};

void ask(Channel const& channel, Options const& options, Load& load) {
    auto io = kj::setupAsyncIo();
    auto stream = io.lowLevelProvider->wrapSocketFd(channel.end);
    capnp::TwoPartyClient rpc(*stream);
    Client client(load, rpc.bootstrap().castAs<Echo>());
    for (size_t i = 0; i < options.window; ++i)
        client.ask();
    client.done().wait(io.waitScope);
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
