#include "WatchCommand.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

#include <vesk/hostkit/FrameText.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "EndSignals.h"
#include "Errors.h"

namespace vesk::tool {

namespace {

/** Prints on the client's thread. */
class Watcher {
public:
    Watcher(asio::io_context& io, HostAddress const& address);

    int run();

private:
    void lost(std::string const& reason);
    void query();
    void fail(std::string const& reason);
    void printChange(char const* what, std::string const& name, bool added);
    static void printCounters(client::Counters const& counters);
    void flush();

    asio::io_context& mIo;
    bool const mWaitsForHost;
    asio::steady_timer mTimer;
    std::atomic<int> mStatus{EXIT_OK};
    client::Client mHost;
};

client::Client::Options withLost(HostAddress const& address,
                                 std::function<void(std::string const& reason)> onLost) {
    client::Client::Options options = address.options();
    options.onLost = std::move(onLost);
    return options;
}

Watcher::Watcher(asio::io_context& io, HostAddress const& address)
    : mIo(io),
      mWaitsForHost(address.reconnect),
      mTimer(io),
      mHost(address.path(),
            withLost(address, [this](std::string const& reason) { lost(reason); })) {}

int Watcher::run() {
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const&, int) { mIo.stop(); });
    mHost.watch(
            {[this](bool added, std::string const& topic) { printChange("topic", topic, added); },
             [this](bool added, client::BusinessName const& business) {
                 printChange("provider", business.toString(), added);
             }});
    query();
    mIo.run();
    return mStatus;
}

void Watcher::lost(std::string const& reason) {
    mWaitsForHost ? say(reason) : fail(reason);
}

void Watcher::fail(std::string const& reason) {
    if (mStatus.exchange(EXIT_FAILED) == EXIT_OK) say(reason);
    mIo.stop();
}

void Watcher::query() {
    mHost.query([this](std::optional<client::Counters> const& counters) {
        if (counters) printCounters(*counters);
        flush();
    });
    mTimer.expires_after(std::chrono::seconds(1));
    mTimer.async_wait([this](asio::error_code const& error) {
        if (!error) query();
    });
}

void Watcher::printChange(char const* what, std::string const& name, bool added) {
    std::printf("%s %s %s\n", what, hostkit::FrameText::escape(name).c_str(),
                added ? "added" : "removed");
    flush();
}

// Whoever reads this through a pipe wants it now, or has seen enough.
void Watcher::flush() {
    try {
        flushOutput();
    } catch (std::runtime_error const& error) {
        fail(error.what());
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

int runWatch(HostAddress const& address) {
    asio::io_context io;
    return Watcher(io, address).run();
}

}  // namespace vesk::tool
