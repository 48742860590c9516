// gRPC: each conversation is a stream that stays open, as its guide to performance advises, of
// bytes without a schema, driven by one completion queue a process.

#include <fcntl.h>
#include <grpcpp/create_channel_posix.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/server_posix.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <memory>
#include <utility>

#include "Harness.h"

namespace {

using namespace peers;
using grpc::ByteBuffer;

/** One side of a conversation: a stream writes one message at a time, so that others wait. */
class Conversation {
public:
    using Received = std::function<void(ByteBuffer&)>;

    /** What the completion queue gives back. */
    struct Event {
        Conversation* conversation;
        void (Conversation::*run)();
    };

    /** Client's and server's streams have no common type. @return the tag of the opening. */
    template <typename Stream>
    void* use(Stream& stream, Received onReceived) {
        mRead = [&stream](ByteBuffer* message, void* tag) { stream.Read(message, tag); };
        mWrite = [&stream](ByteBuffer const& message, void* tag) { stream.Write(message, tag); };
        mReceived = std::move(onReceived);
        return &mOnOpen;
    }

    void send(ByteBuffer const& message) {
        mWaiting.push_back(message);
        if (mOpen && !mWriting) writeNext();
    }

private:
    void open() {
        mOpen = true;
        mRead(&mIn, &mOnRead);
        writeNext();
    }

    void read() {
        mReceived(mIn);
        mRead(&mIn, &mOnRead);
    }

    void writeNext() {
        mWriting = !mWaiting.empty();
        if (!mWriting) return;
        mWrite(mWaiting.front(), &mOnWritten);
        mWaiting.pop_front();
    }

    std::function<void(ByteBuffer*, void*)> mRead;
    std::function<void(ByteBuffer const&, void*)> mWrite;
    Received mReceived;
    Event mOnOpen{this, &Conversation::open};
    Event mOnRead{this, &Conversation::read};
    Event mOnWritten{this, &Conversation::writeNext};
    ByteBuffer mIn;
    std::deque<ByteBuffer> mWaiting;
    bool mOpen = false;
    bool mWriting = false;
};

void runNext(grpc::CompletionQueue& events) {
    void* tag = nullptr;
    bool fine = false;
    events.Next(&tag, &fine);
    while (!fine)
        pause();  // the client has ended, and the harness ends the server
    auto const& event = *static_cast<Conversation::Event*>(tag);
    (event.conversation->*event.run)();
}

int unblocked(int end) {
    fcntl(end, F_SETFL, fcntl(end, F_GETFL) | O_NONBLOCK);
    return end;
}

struct Served {
    Served(grpc::AsyncGenericService& service, grpc::ServerCompletionQueue& events)
        : stream(&context) {
        void* const opened =
                conversation.use(stream, [this](ByteBuffer& in) { conversation.send(in); });
        service.RequestCall(&context, &stream, &events, &events, opened);
    }
    grpc::GenericServerContext context;
    grpc::GenericServerAsyncReaderWriter stream;
    Conversation conversation;
};

void serve(Channel const& channel, Options const&) {
    grpc::AsyncGenericService service;
    grpc::ServerBuilder builder;
    builder.RegisterAsyncGenericService(&service);
    auto const events = builder.AddCompletionQueue();
    auto const server = builder.BuildAndStart();
    std::vector<std::unique_ptr<Served>> calls;
    for (size_t i = 0; i < Load::CONVERSATIONS; ++i)
        calls.push_back(std::make_unique<Served>(service, *events));
    grpc::AddInsecureChannelFromFd(server.get(), unblocked(channel.end));
    for (;;)
        runNext(*events);
}

struct Asked {
    Asked(grpc::GenericStub& stub, grpc::CompletionQueue& events, Conversation::Received onReceived)
        : stream(stub.PrepareCall(&context, "/Echo/Echo", &events)) {
        stream->StartCall(conversation.use(*stream, std::move(onReceived)));
    }
    grpc::ClientContext context;
    std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream;
    Conversation conversation;
};

void ask(Channel const& channel, Options const& options, Load& load) {
    grpc::GenericStub stub(grpc::CreateInsecureChannelFromFd("peer", unblocked(channel.end)));
    grpc::CompletionQueue events;
    std::vector<std::unique_ptr<Asked>> calls;
    auto const add = [&] {
        auto const request = load.next();
        grpc::Slice const bytes(request.data, request.size);
        calls[request.conversation]->conversation.send(ByteBuffer(&bytes, 1));
    };
    for (size_t i = 0; i < Load::CONVERSATIONS; ++i) {
        calls.push_back(std::make_unique<Asked>(stub, events, [&, i](ByteBuffer& in) {
            grpc::Slice bytes;
            require(in.DumpToSingleSlice(&bytes).ok(), "cannot read");
            if (load.replied(i, bytes.begin(), bytes.size())) add();
        }));
    }
    for (size_t i = 0; i < options.window; ++i)
        add();
    while (!load.done())
        runNext(events);
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
