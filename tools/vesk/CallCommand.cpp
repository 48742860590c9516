#include "CallCommand.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include <asio/io_context.hpp>

#include "CallReport.h"
#include "EndSignals.h"
#include "Errors.h"
#include "LatencyHistogram.h"
#include "PayloadSource.h"

namespace vesk::tool {

namespace {

using Clock = std::chrono::steady_clock;

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
    bool sendOne();
    void ended(client::Client::Reply const& reply, Clock::time_point sent,
               client::Bytes const& payload);
    void accept(client::Bytes const& reply, Clock::time_point sent, client::Bytes const& payload);
    void fail(std::string const& reason);
    void reportProgress();
    void require(bool written);
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
    bool mFailed = false;
};

Caller::Caller(asio::io_context& io, CallOptions const& options)
    : mIo(io),
      mOptions(options),
      mBusiness(client::BusinessName::parse(options.business)),
      mPayloads(options) {
    client::Client::Options how = options.address.options();
    how.limit = std::chrono::milliseconds(options.joinTimeoutMillis);
    how.onLost = [this](std::string const& reason) { fail(reason); };
    mHost.emplace(options.address.path(), how);
}

int Caller::run() {
    mHost->join(mBusiness);
    bool interrupted = false;
    EndSignals signals(mIo);
    signals.async_wait([&](asio::error_code const& error, int) {
        if (error) return;
        interrupted = true;
        mIo.stop();
    });
    mHost->post([this] { sendMore(); });
    mIo.run();
    mHost.reset();  // and with it the client's thread; what was outstanding is lost
    mFailed = mFailed || interrupted;
    return conclude();
}

void Caller::sendMore() {
    while (!mFailed && mReport.requests < mOptions.count && mOutstanding < mOptions.window) {
        if (!sendOne()) break;
    }
    if (mReport.requests == mOptions.count && mOutstanding == 0) mIo.stop();
}

bool Caller::sendOne() {
    using Sent = client::Client::Sent;
    client::Bytes payload = mPayloads.next();
    client::Bytes kept = mOptions.verify ? payload : client::Bytes();
    client::Client::Done done = [this, sent = Clock::now(),
                                 kept = std::move(kept)](client::Client::Reply const& reply) {
        ended(reply, sent, kept);
    };
    auto const timeout = std::chrono::milliseconds(mOptions.timeoutMillis);
    Sent const sent = mHost->call(std::move(payload), timeout, std::move(done));
    if (sent == Sent::YES) {
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
    sendMore();
}

void Caller::accept(client::Bytes const& reply, Clock::time_point sent,
                    client::Bytes const& payload) {
    auto const latency = Clock::now() - sent;
    auto const micros = std::chrono::duration_cast<std::chrono::microseconds>(latency).count();
    mLatencies.add(static_cast<uint64_t>(micros));
    ++mReport.replies;
    if (mOptions.verify && reply != payload) ++mReport.wrong;
    if (mOptions.report) return reportProgress();
    require(std::fwrite(reply.data(), 1, reply.size(), stdout) == reply.size() &&
            std::fputc('\n', stdout) != EOF);
}

// Whoever reads the replies may have seen enough of them.
void Caller::require(bool written) {
    if (!written) fail(std::string("cannot write to stdout: ") + std::strerror(errno));
}

void Caller::fail(std::string const& reason) {
    if (!mFailed) say(reason);
    mFailed = true;
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
    if (mOptions.stats) {
        std::chrono::duration<double> const seconds = Clock::now() - mStart;
        std::fprintf(stderr, "requests %zu, replies %zu, lost %zu, p50 %s, p99 %s, %.2f s\n",
                     mReport.requests, mReport.replies, mReport.lost,
                     formatMicros(mReport.p50Micros).c_str(),
                     formatMicros(mReport.p99Micros).c_str(), seconds.count());
    } else if (mReport.lost > 0) {
        say(std::to_string(mReport.lost) + " of " + std::to_string(mReport.requests) +
            " requests got no reply");
    }
    if (mReport.wrong > 0)
        say(std::to_string(mReport.wrong) + " replies were not the request's bytes");
    bool const all = mReport.complete() && mReport.requests == mOptions.count;
    return all && !mFailed ? EXIT_OK : EXIT_FAILED;
}

}  // namespace

int runCall(CallOptions const& options) {
    asio::io_context io;
    return Caller(io, options).run();
}

}  // namespace vesk::tool
