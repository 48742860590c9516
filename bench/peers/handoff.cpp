// The floor of what hands each frame to a thread that writes: one read thread and one sender thread
// a process, and a lock between them. Writes each frame by itself, or all that wait at once.

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "FrameStream.h"

namespace {

using namespace peers;

class Sender {
public:
    Sender(int channel, bool coalesces) : mChannel(channel), mCoalesces(coalesces) {
        std::thread([this] { write(); }).detach();  // until the process ends
    }

    void send(size_t conversation, uint8_t const* data, size_t size) {
        bool wakes = false;
        {
            std::lock_guard<std::mutex> const lock(mMutex);
            FrameStream::append(mWaiting, conversation, data, size);
            std::swap(wakes, mAsleep);
        }
        if (wakes) mFilled.notify_one();  // without the lock, which the other thread wants then
    }

private:
    [[noreturn]] void write() {
        for (std::vector<uint8_t> batch;; batch.clear()) {
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mAsleep = mWaiting.empty();
                mFilled.wait(lock, [this] { return !mWaiting.empty(); });
                batch.swap(mWaiting);
            }
            for (size_t at = 0, size = 0; at < batch.size(); at += size) {
                size = mCoalesces ? batch.size() : FrameStream::sizeAt(&batch[at]);
                writeAll(mChannel, &batch[at], size);
            }
        }
    }

    int const mChannel;
    bool const mCoalesces;
    std::mutex mMutex;
    std::condition_variable mFilled;
    std::vector<uint8_t> mWaiting;
    bool mAsleep = false;
};

void serve(Channel const& channel, Options const& options) {
    FrameStream stream(channel.end);
    Sender sender(channel.end, options.coalesces);
    for (;;) {
        stream.read([&](size_t conversation, uint8_t const* data, size_t size) {
            sender.send(conversation, data, size);
        });
    }
}

void ask(Channel const& channel, Options const& options, Load& load) {
    FrameStream stream(channel.end);
    auto& sender = *new Sender(channel.end, options.coalesces);  // its thread is never joined
    auto const add = [&] {
        auto const request = load.next();
        sender.send(request.conversation, request.data, request.size);
    };
    for (size_t i = 0; i < options.window; ++i)
        add();
    while (!load.done()) {
        stream.read([&](size_t conversation, uint8_t const* data, size_t size) {
            if (load.replied(conversation, data, size)) add();
        });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
