#include "WatchCommand.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "EndSignals.h"
#include "Errors.h"
#include "WatchPrinter.h"

namespace vesk::tool {

namespace {

/** Prints on the client's thread. */
class Watcher {
public:
    Watcher(asio::io_context& io, WatchOptions const& options);

    int run();

private:
    client::Client::Options connection(HostAddress const& address);
    void lost(std::string const& reason);
    void query();
    void fail(std::string const& reason);
    /** Ends the command where nobody takes the output any more. */
    void attempt(std::function<void()> const& output);

    asio::io_context& mIo;
    bool const mWaitsForHost;
    asio::steady_timer mTimer;
    std::atomic<int> mStatus{EXIT_OK};
    WatchPrinter mPrinter;
    client::Client mHost;
};

WatchPrinter::Form formOf(WatchOptions const& options) {
    if (options.json) return WatchPrinter::Form::JSON;
    return ::isatty(STDOUT_FILENO) != 0 ? WatchPrinter::Form::SCREEN : WatchPrinter::Form::LINES;
}

Watcher::Watcher(asio::io_context& io, WatchOptions const& options)
    : mIo(io),
      mWaitsForHost(options.address.retry),
      mTimer(io),
      mPrinter(formOf(options)),
      mHost(options.address.path(), connection(options.address)) {}

client::Client::Options Watcher::connection(HostAddress const& address) {
    client::Client::Options options = address.options();
    options.onLost = [this](std::string const& reason) { lost(reason); };
    options.onNotice = [this](std::string const& text) { attempt([&] { mPrinter.notice(text); }); };
    return options;
}

int Watcher::run() {
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const&, int) { mIo.stop(); });
    auto const changed = [this](char const* what, std::string const& name, bool added) {
        attempt([&] { mPrinter.change(what, name, added); });
    };
    mHost.watch({[=](bool added, std::string const& topic) { changed("topic", topic, added); },
                 [=](bool added, client::BusinessName const& business) {
                     changed("provider", business.toString(), added);
                 }});
    query();
    mIo.run();
    return mStatus;
}

void Watcher::lost(std::string const& reason) {
    mPrinter.leave();
    mWaitsForHost ? say(reason) : fail(reason);
}

void Watcher::fail(std::string const& reason) {
    if (mStatus.exchange(EXIT_FAILED) == EXIT_OK) say(reason);
    mIo.stop();
}

void Watcher::query() {
    // Where nothing changes, nothing is printed, and no write would tell.
    attempt(checkOutput);
    mHost.query([this](std::optional<client::Counters> const& counters) {
        if (counters) attempt([&] { mPrinter.counters(*counters); });
    });
    mTimer.expires_after(std::chrono::seconds(1));
    mTimer.async_wait([this](asio::error_code const& error) {
        if (!error) query();
    });
}

void Watcher::attempt(std::function<void()> const& output) {
    try {
        output();
    } catch (std::runtime_error const& error) {
        fail(error.what());
    }
}

}  // namespace

int runWatch(WatchOptions const& options) {
    asio::io_context io;
    return Watcher(io, options).run();
}

}  // namespace vesk::tool
