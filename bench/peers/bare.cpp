// The floor: each process has one thread, which reads what there is, answers it and writes all the
// answers at once.

#include "FrameStream.h"

namespace {

using namespace peers;

void serve(Channel const& channel, Options const&) {
    FrameStream stream(channel.end);
    for (std::vector<uint8_t> answers;; answers.clear()) {
        stream.read([&](size_t conversation, uint8_t const* data, size_t size) {
            FrameStream::append(answers, conversation, data, size);
        });
        writeAll(channel.end, answers.data(), answers.size());
    }
}

void ask(Channel const& channel, Options const& options, Load& load) {
    FrameStream stream(channel.end);
    std::vector<uint8_t> requests;
    auto const add = [&] {
        auto const request = load.next();
        FrameStream::append(requests, request.conversation, request.data, request.size);
    };
    for (size_t i = 0; i < options.window; ++i)
        add();
    while (!load.done()) {
        if (!requests.empty()) writeAll(channel.end, requests.data(), requests.size());
        requests.clear();
        stream.read([&](size_t conversation, uint8_t const* data, size_t size) {
            if (load.replied(conversation, data, size)) add();
        });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
