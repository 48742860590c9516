#include "WatchCommand.h"

#include <chrono>
#include <cstdio>

#include <vesk/client/HostClient.h>
#include <vesk/hostkit/FrameText.h>
#include <vesk/hostkit_asio/Endpoint.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "EndSignals.h"
#include "Errors.h"

namespace vesk::tool {

namespace {

class Watcher {
public:
    Watcher(asio::io_context& io, std::string const& path) : mIo(io), mHost(io, path), mTimer(io) {}

    int run();

private:
    void received(client::Message const& message);
    void printChange(client::Message const& message);
    void printCounters(client::Counters const& counters);
    void query();

    asio::io_context& mIo;
    client::HostClient mHost;
    asio::steady_timer mTimer;
    int mStatus = EXIT_OK;
};

int Watcher::run() {
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const&, int) { mIo.stop(); });
    mHost.start([this](client::Message const& message) { received(message); },
                [this](std::string const& reason) {
                    say(reason);
                    mStatus = EXIT_FAILED;
                    mIo.stop();
                });
    mHost.send(client::encodeMessage(client::MessageType::WATCH));
    query();
    mIo.run();
    return mStatus;
}

void Watcher::query() {
    mHost.send(client::encodeMessage(client::MessageType::QUERY));
    mTimer.expires_after(std::chrono::seconds(1));
    mTimer.async_wait([this](asio::error_code const& error) {
        if (!error) query();
    });
}

void Watcher::received(client::Message const& message) {
    if (message.type == client::MessageType::COUNTERS) {
        if (auto const counters = client::Counters::decode(message.body)) printCounters(*counters);
    } else {
        printChange(message);
    }
    flushOutput();  // whoever reads this through a pipe wants it now, or has seen enough
}

void Watcher::printChange(client::Message const& message) {
    auto const change = client::ChangeMessage::decode(message.type, message.body);
    if (!change) return;
    std::string const topic = hostkit::FrameText::escape(change->topic);
    char const* what = change->added ? "added" : "removed";
    if (message.type == client::MessageType::TOPIC) {
        std::printf("topic %s %s\n", topic.c_str(), what);
    } else {
        std::printf("provider %s/%s %s\n", topic.c_str(),
                    hostkit::FrameText::escape(change->business).c_str(), what);
    }
}

void Watcher::printCounters(client::Counters const& counters) {
    auto const print = [](char const* name, uint64_t value, char const* end) {
        std::printf("%s %llu%s", name, static_cast<unsigned long long>(value), end);
    };
    std::printf("channel %s, ", counters.channelUp != 0 ? "up" : "down");
    print("pending", counters.pending, ", ");
    print("awaiting ack", counters.awaitingAck, ", ");
    print("owed acks", counters.owedAcks, ", ");
    print("sent", counters.sentPackets, ", ");
    print("received", counters.receivedPackets, ", ");
    print("last delay", counters.lastDelayMillis, " ms, ");
    print("slow", counters.slowCount, ", ");
    print("clients", counters.clients, ", ");
    print("providers", counters.providers, ", ");
    print("skipped bytes", counters.skippedBytes, ", ");
    print("reconnects", counters.reconnects, ", ");
    print("refused", counters.refused, ", ");
    print("evicted", counters.evicted, "\n");
}

}  // namespace

int runWatch(std::string const& host) {
    asio::io_context io;
    return Watcher(io, hostkit::parseUnixPath("--host", host)).run();
}

}  // namespace vesk::tool
