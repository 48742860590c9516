// A host whose channel is a stream of bytes, as a serial line or a socket is, with the host kit. It
// answers requests, and asks them one after another. Both sides run here, one of them in a child
// process.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vesk/Vesk.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/Outbox.h>
#include <vesk/hostkit/Requester.h>
#include <vesk/hostkit/Responder.h>

#include <iostream>
#include <thread>

using namespace vesk;
using Bytes = std::vector<uint8_t>;

struct Host : VeskCallback {
    explicit Host(int channel) : mChannel(channel) {}
    void sendToChannel(Bytes bytes) override {
        mOutbox.put(std::move(bytes));
        if (mOutbox.moreComes(*mQueue)) return;  // the next call writes it too
        for (auto batch = mOutbox.take(); batch.size > 0; batch = mOutbox.take()) {
            send(mChannel, batch.data, batch.size, MSG_NOSIGNAL);  // a blocking one takes all of it
            mOutbox.written(batch.size);
        }
    }
    void receive(uint32_t, uint32_t id, bool local,
                 std::shared_ptr<VeskFrame> const& frame) override {
        if (mRequester.received(frame, local)) return;
        hostkit::Responder(*frame).send(id, frame->data);
    }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

    void serve() {  // until the channel ends
        hostkit::FrameReader reader(*Vesk::getInstance()->getConfig(),
                                    [&](auto const& frame) { mQueue->receiveFromChannel(frame); });
        pollfd readable{mChannel, POLLIN, 0};
        for (Bytes bytes(65536);;) {
            bool const silent = poll(&readable, 1, reader.incomplete() ? 1000 : -1) == 0;
            ssize_t const n = silent ? 0 : recv(mChannel, bytes.data(), bytes.size(), 0);
            if (n <= 0 && !silent) break;
            silent ? reader.abandon() : reader.feed(bytes.data(), size_t(n));
        }
        Vesk::getInstance()->onChannelAvailable(false);  // drops what cannot leave any more
    }
    int const mChannel;
    std::shared_ptr<VeskQueue> const mQueue = Vesk::getInstance()->getQueue();
    hostkit::Outbox mOutbox{nullptr};
    hostkit::Requester mRequester;
};

int main() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 1;
    bool const asks = fork() != 0;  // before the library starts its thread
    close(ends[asks]);
    android::sp<Host> const host = new Host(ends[!asks]);
    Vesk* const vesk = Vesk::getInstance();
    vesk->init(host);
    vesk->createTopic("test", false);
    int const role = asks ? VeskSessionManager::CONSUMER : VeskSessionManager::PROVIDER;
    int const id = vesk->getSessionManager()->createSession(1, role, "test", "test", false);
    if (!asks) return host->serve(), 0;
    std::thread reader([&] { host->serve(); });
    int replies = 0;
    for (size_t i = 0; i < 1000; ++i) {
        auto const answer = host->mRequester.call({2, 1, uint16_t(id)}, Bytes(i), 60000);
        if (answer.outcome == hostkit::Requester::Outcome::REPLIED) ++replies;
    }
    shutdown(host->mChannel, SHUT_RDWR);
    reader.join();
    std::cout << replies << " of 1000 requests answered\n";
}
