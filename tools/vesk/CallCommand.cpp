#include "CallCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "CallReport.h"
#include "EndSignals.h"
#include "Errors.h"
#include "LatencyHistogram.h"
#include "NoReply.h"
#include "PayloadSource.h"
#include "StdinWatch.h"

namespace vesk::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds WHY_LIMIT{2000};

std::string hexDigits(client::Bytes const& bytes) {
    constexpr char const* DIGITS = "0123456789abcdef";
    std::string text;
    for (uint8_t const byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

/**
 * One consumer: keeps up to `window` requests outstanding until all are answered or given up.
 *
 * Threads: what is below run() belongs to the client's thread, until that has ended.
 */
class Caller {
public:
    Caller(asio::io_context& io, CallOptions const& options);
    int run();

private:
    void sendMore();
    bool isAllSent();
    bool mayGoOn();
    void callLater(Clock::time_point time, std::function<void()> what);
    void awaitLine();
    void finish();
    void askWhy();
    bool sendOne();
    void ended(client::Client::Reply const& reply, Clock::time_point sent,
               client::Bytes const& payload);
    void accept(client::Bytes const& reply, Clock::time_point sent, client::Bytes const& payload);
    void print(client::Bytes const& reply);
    void fail(std::string const& reason, int status = EXIT_FAILED);
    void reportProgress();
    void require(bool written);
    void explainLost();
    void printStats() const;
    int conclude();

    asio::io_context& mIo;
    CallOptions const& mOptions;
    client::BusinessName const mBusiness;
    PayloadSource mPayloads;
    std::optional<client::Client> mHost;
    size_t mOutstanding = 0;
    LatencyHistogram mLatencies;
    CallReport mReport;
    Clock::time_point mNextProgress = Clock::now();
    Clock::time_point const mStart = Clock::now();
    asio::steady_timer mTimer;             // the main thread's
    std::optional<StdinWatch> mStdin;      // the main thread's
    std::optional<client::Bytes> mUnsent;  // a line for which there was no room
    bool mAllSent = false;
    bool mAwaitsLine = false;
    Clock::time_point mNextSend{};
    bool mFinished = false;
    std::string mStatusOfHost;  // empty: not known
    std::optional<client::Client> mAsking;
    int mStatus = EXIT_OK;
};

Caller::Caller(asio::io_context& io, CallOptions const& options)
    : mIo(io),
      mOptions(options),
      mBusiness(client::BusinessName::parse(options.business)),
      mPayloads(options),
      mTimer(io) {
    client::Client::Options how = options.address.options();
    how.limit = std::chrono::milliseconds(options.joinTimeoutMillis);
    how.onLost = [this](std::string const& reason) {
        if (!mFinished) fail(reason, EXIT_NO_HOST);
    };
    std::string const path = options.address.path();
    try {
        mHost.emplace(path, how);
    } catch (std::runtime_error const& error) {
        throw NoHost(error);
    }
}

int Caller::run() {
    try {
        mHost->join(mBusiness);
    } catch (std::runtime_error const& error) {
        throw NoHost(error);
    }
    bool interrupted = false;
    EndSignals signals(mIo);
    signals.async_wait([&](asio::error_code const& error, int) {
        if (error) return;
        interrupted = true;
        mIo.stop();
    });
    mHost->post([this] { sendMore(); });
    mIo.run();
    mAsking.reset();
    mHost.reset();  // and with it the client's thread; what was outstanding is lost
    int const status = conclude();
    return interrupted ? EXIT_INTERRUPTED : status;
}

void Caller::sendMore() {
    try {
        while (mStatus == EXIT_OK && mOutstanding < mOptions.window && !isAllSent()) {
            if (!mayGoOn() || !sendOne()) return;
        }
        mAllSent = isAllSent();
        if (mAllSent && mOutstanding == 0) finish();
    } catch (UsageError const& error) {
        fail(error.what(), EXIT_USAGE);  // a line that is too long
    }
}

bool Caller::isAllSent() {
    if (mOptions.lines) return !mUnsent && mPayloads.atEnd();
    return mReport.requests == mOptions.count;
}

/** Whether the next request may be sent now; otherwise this comes back to it. */
bool Caller::mayGoOn() {
    if (mOptions.lines && !mUnsent && !mPayloads.hasLine()) {
        awaitLine();
        return false;
    }
    if (mOptions.intervalMillis == 0) return true;
    auto const now = Clock::now();
    if (now < mNextSend) {
        callLater(mNextSend, [this] { mHost->post([this] { sendMore(); }); });
        return false;
    }
    mNextSend = now + std::chrono::milliseconds(mOptions.intervalMillis);
    return true;
}

void Caller::callLater(Clock::time_point time, std::function<void()> what) {
    asio::post(mIo, [this, time, what = std::move(what)] {
        mTimer.expires_at(time);
        mTimer.async_wait([what](asio::error_code const& error) {
            if (!error) what();
        });
    });
}

// Not on the client's thread: it prints replies meanwhile, and has to end when a signal comes.
void Caller::awaitLine() {
    if (std::exchange(mAwaitsLine, true)) return;
    asio::post(mIo, [this] {
        if (!mStdin) mStdin.emplace(mIo);
        mStdin->wait([this] {
            mHost->post([this] {
                mAwaitsLine = false;
                sendMore();
            });
        });
    });
}

void Caller::finish() {
    if (std::exchange(mFinished, true)) return;
    asio::post(mIo, [this] { mReport.lost == 0 ? mIo.stop() : askWhy(); });
}

// Where replies are missing, the host may know why; one that does not answer knows nothing. It is
// asked by a connection of its own: while requests wait for its channel it does not read the other.
void Caller::askWhy() {
    client::Client::Options how = mOptions.address.options();
    how.limit = std::min(std::chrono::milliseconds(mOptions.joinTimeoutMillis), WHY_LIMIT);
    mTimer.expires_after(how.limit);
    mTimer.async_wait([this](asio::error_code const&) { mIo.stop(); });
    try {
        mAsking.emplace(mOptions.address.path(), how);
        mAsking->status(client::StatusFormat::JSON, [this](std::optional<std::string> const& text) {
            mStatusOfHost = text.value_or("");
            mIo.stop();
        });
    } catch (std::runtime_error const&) {
        mIo.stop();
    }
}

bool Caller::sendOne() {
    using Sent = client::Client::Sent;
    client::Bytes payload = mUnsent ? *std::exchange(mUnsent, std::nullopt) : mPayloads.next();
    if (mOptions.lines) mUnsent = payload;
    client::Bytes kept = mOptions.verify ? payload : client::Bytes();
    client::Client::Done done = [this, sent = Clock::now(),
                                 kept = std::move(kept)](client::Client::Reply const& reply) {
        ended(reply, sent, kept);
    };
    auto const timeout = std::chrono::milliseconds(mOptions.timeoutMillis);
    Sent const sent = mHost->call(std::move(payload), timeout, std::move(done));
    if (sent == Sent::YES) {
        mUnsent.reset();
        ++mOutstanding;
        ++mReport.requests;
    } else if (sent == Sent::NO_ID) {
        fail("no message id is left: too many requests got no reply");
    } else if (sent == Sent::FULL && mOutstanding == 0) {
        fail("the host does not take any more requests; see whether it is stopped");
    }
    return sent == Sent::YES;
}

void Caller::ended(client::Client::Reply const& reply, Clock::time_point sent,
                   client::Bytes const& payload) {
    --mOutstanding;
    if (reply.outcome == client::Client::Outcome::REPLIED) {
        accept(reply.payload, sent, payload);
    } else {
        ++mReport.lost;
    }
    // Where the host is gone, that is told next, and is why there are no replies.
    if (reply.outcome != client::Client::Outcome::LOST) sendMore();
}

void Caller::accept(client::Bytes const& reply, Clock::time_point sent,
                    client::Bytes const& payload) {
    auto const latency = Clock::now() - sent;
    auto const micros = std::chrono::duration_cast<std::chrono::microseconds>(latency).count();
    mLatencies.add(static_cast<uint64_t>(micros));
    ++mReport.replies;
    if (mOptions.verify && reply != payload) ++mReport.wrong;
    mOptions.report ? reportProgress() : print(reply);
}

// For a file or a pipe the reply's bytes alone; for a person, and in digits, a line.
void Caller::print(client::Bytes const& reply) {
    std::string const text =
            mOptions.hex ? hexDigits(reply) : std::string(reply.begin(), reply.end());
    bool const isLine = mOptions.hex || ::isatty(STDOUT_FILENO) != 0;
    require(std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
            (!isLine || std::fputc('\n', stdout) != EOF) && std::fflush(stdout) == 0);
}

// Whoever reads the replies may have seen enough of them.
void Caller::require(bool written) {
    if (!written) fail(std::string("cannot write to stdout: ") + std::strerror(errno));
}

void Caller::fail(std::string const& reason, int status) {
    if (mStatus == EXIT_OK) {
        say(reason);
        mStatus = status;
    }
    mIo.stop();
}

void Caller::reportProgress() {
    auto const now = Clock::now();
    if (now < mNextProgress) return;
    mNextProgress = now + std::chrono::milliseconds(50);
    std::printf("progress %zu\n", mReport.replies);
    require(std::fflush(stdout) == 0);
}

int Caller::conclude() {
    mReport.p50Micros = mLatencies.percentile(50);
    mReport.p99Micros = mLatencies.percentile(99);
    if (mOptions.report) std::printf("%s\n", mReport.line().c_str());
    require(std::fflush(stdout) == 0);
    if (mOptions.stats) printStats();
    if (mReport.lost > 0) explainLost();
    if (mReport.wrong > 0)
        say(std::to_string(mReport.wrong) + " replies were not the request's bytes");
    if (mStatus != EXIT_OK) return mStatus;
    return mReport.complete() && mAllSent ? EXIT_OK : EXIT_FAILED;
}

void Caller::printStats() const {
    std::chrono::duration<double> const seconds = Clock::now() - mStart;
    std::fprintf(stderr, "requests %zu, replies %zu, lost %zu, p50 %s, p99 %s, %.2f s\n",
                 mReport.requests, mReport.replies, mReport.lost,
                 formatMicros(mReport.p50Micros).c_str(), formatMicros(mReport.p99Micros).c_str(),
                 seconds.count());
}

void Caller::explainLost() {
    std::string text = std::to_string(mReport.lost) + " of " + std::to_string(mReport.requests) +
                       " requests got no reply";
    if (!mStatusOfHost.empty()) {
        NoReply const why = NoReply::explain(mStatusOfHost, mBusiness.toString(), mReport.lost,
                                             mOptions.timeoutMillis);
        text += ": " + why.reason;
        if (mStatus == EXIT_OK) mStatus = why.exitStatus;
    }
    say(text);
}

}  // namespace

int runCall(CallOptions const& options) {
    asio::io_context io;
    return Caller(io, options).run();
}

}  // namespace vesk::tool
