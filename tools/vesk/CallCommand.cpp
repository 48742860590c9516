#include "CallCommand.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <list>
#include <unordered_map>

#include <vesk/client/HostClient.h>
#include <vesk/hostkit_asio/Endpoint.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

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
 * A msgId that was given up is not used again until its late reply has come, so that no late reply
 * is ever taken for a newer request's.
 */
class Caller {
public:
    Caller(asio::io_context& io, CallOptions const& options);
    int run();

private:
    enum class IdState : uint8_t { FREE, OUTSTANDING, GIVEN_UP };
    struct Request {
        uint16_t msgId;
        Clock::time_point sent;
        client::Bytes payload;  // kept for verification only
    };
    using Requests = std::list<Request>;

    void sendMore();
    void sendOne();
    uint16_t takeMsgId();
    void received(client::Message const& message);
    void accept(client::DataMessage const& reply, Request const& request);
    void expire();
    void watchTimeout();
    void finishWhenDone();
    void reportProgress();
    void require(bool written);
    int conclude();

    asio::io_context& mIo;
    CallOptions const& mOptions;
    client::BusinessName const mBusiness;
    PayloadSource mPayloads;
    client::HostClient mHost;
    asio::steady_timer mTimer;
    uint16_t mSession = 0;
    uint16_t mNextMsgId;
    std::array<IdState, 65536> mIds{};
    Requests mRequests;  // that are outstanding, in the order of sending
    std::unordered_map<uint16_t, Requests::iterator> mOutstanding;
    bool mWatchesTimeout = false;
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
      mPayloads(options),
      mHost(io, hostkit::parseUnixPath("--host", options.host),
            std::chrono::milliseconds(options.joinTimeoutMillis)),
      mTimer(io),
      mNextMsgId(mPayloads.firstMsgId()) {}

int Caller::run() {
    mSession = mHost.join(client::HostClient::CONSUMER, mBusiness);
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const& error, int) {
        if (error) return;
        mFailed = true;
        mIo.stop();
    });
    mHost.start([this](client::Message const& message) { received(message); },
                [this](std::string const& reason) {
                    say(reason);
                    mFailed = true;
                    mIo.stop();
                });
    sendMore();
    mIo.run();
    return conclude();
}

void Caller::sendMore() {
    while (mReport.requests < mOptions.count && mOutstanding.size() < mOptions.window)
        sendOne();
    finishWhenDone();
}

void Caller::sendOne() {
    uint16_t const msgId = takeMsgId();
    client::Bytes payload = mPayloads.next();
    auto const now = Clock::now();
    mHost.send(client::DataMessage::encode(client::MessageType::REQUEST, mSession, msgId, payload));
    if (!mOptions.verify) payload = {};
    mOutstanding[msgId] = mRequests.insert(mRequests.end(), {msgId, now, std::move(payload)});
    ++mReport.requests;
    if (!mWatchesTimeout) watchTimeout();
}

uint16_t Caller::takeMsgId() {
    for (size_t tried = 0; tried < mIds.size(); ++tried) {
        uint16_t const msgId = mNextMsgId++;
        if (mIds[msgId] != IdState::FREE) continue;
        mIds[msgId] = IdState::OUTSTANDING;
        return msgId;
    }
    throw std::runtime_error("no message id is left: too many requests got no reply");
}

void Caller::received(client::Message const& message) {
    std::optional<client::DataMessage> const reply = client::DataMessage::decode(message.body);
    if (message.type != client::MessageType::REPLY || !reply) return;
    IdState const state = mIds[reply->msgId];
    mIds[reply->msgId] = IdState::FREE;
    if (state != IdState::OUTSTANDING) return;  // too late, or never asked for
    auto const found = mOutstanding.find(reply->msgId);
    accept(*reply, *found->second);
    mRequests.erase(found->second);
    mOutstanding.erase(found);
    sendMore();
}

void Caller::accept(client::DataMessage const& reply, Request const& request) {
    auto const latency = Clock::now() - request.sent;
    auto const micros = std::chrono::duration_cast<std::chrono::microseconds>(latency).count();
    mLatencies.add(static_cast<uint64_t>(micros));
    ++mReport.replies;
    if (mOptions.verify && reply.payload != request.payload) ++mReport.wrong;
    if (mOptions.report) return reportProgress();
    size_t const size = reply.payload.size();
    require(std::fwrite(reply.payload.data(), 1, size, stdout) == size &&
            std::fputc('\n', stdout) != EOF);
}

// Whoever reads the replies may have seen enough of them.
void Caller::require(bool written) {
    if (written || mFailed) return;
    say(std::string("cannot write to stdout: ") + std::strerror(errno));
    mFailed = true;
    mIo.stop();
}

// All requests have the same time, so the oldest is the first to run out of it.
void Caller::watchTimeout() {
    mWatchesTimeout = true;
    mTimer.expires_at(mRequests.front().sent + std::chrono::milliseconds(mOptions.timeoutMillis));
    mTimer.async_wait([this](asio::error_code const& error) {
        mWatchesTimeout = false;
        if (!error) expire();
    });
}

void Caller::expire() {
    auto const late = Clock::now() - std::chrono::milliseconds(mOptions.timeoutMillis);
    while (!mRequests.empty() && mRequests.front().sent <= late) {
        uint16_t const msgId = mRequests.front().msgId;
        mIds[msgId] = IdState::GIVEN_UP;
        mOutstanding.erase(msgId);
        mRequests.pop_front();
        ++mReport.lost;
    }
    if (!mRequests.empty()) watchTimeout();
    sendMore();
}

void Caller::finishWhenDone() {
    if (mReport.requests == mOptions.count && mOutstanding.empty()) mIo.stop();
}

void Caller::reportProgress() {
    auto const now = Clock::now();
    if (now < mNextProgress) return;
    mNextProgress = now + std::chrono::milliseconds(50);
    std::printf("progress %zu\n", mReport.replies);
    require(std::fflush(stdout) == 0);
}

int Caller::conclude() {
    mReport.lost += mOutstanding.size();
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
