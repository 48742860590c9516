#include "ProvideCommand.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include "EndSignals.h"
#include "Errors.h"
#include "ExecJob.h"

namespace vesk::tool {

namespace {

/**
 * Keeps the requests that wait for a free job; the client bounds them, together with those at work.
 *
 * Threads: requests come on the client's thread; jobs belong to the one that runs the io_context,
 *          where processes are started.
 */
class Provider {
public:
    Provider(asio::io_context& io, ProvideOptions const& options);

    /** 0 after a signal, 1 when the host went away. */
    int run();

private:
    struct Request {
        client::Bytes payload;
        client::Responder responder;
    };

    client::Client::Options connection();
    void requested(Request request);
    void startJobs();
    void startJob(Request request);
    static void giveUp(client::Responder const& request, std::string const& error);
    void sayProviding(uint16_t session) const;

    asio::io_context& mIo;
    ProvideOptions const& mOptions;
    client::BusinessName const mBusiness;
    std::deque<Request> mWaiting;
    std::set<std::shared_ptr<ExecJob>> mJobs;
    std::atomic<int> mStatus{EXIT_OK};
    client::Client mHost;
};

Provider::Provider(asio::io_context& io, ProvideOptions const& options)
    : mIo(io),
      mOptions(options),
      mBusiness(client::BusinessName::parse(options.business)),
      mHost(options.address.path(), connection()) {}

client::Client::Options Provider::connection() {
    client::Client::Options options = mOptions.address.options();
    options.onLost = [this](std::string const& reason) {
        say(reason);
        if (mOptions.address.retry) return;
        mStatus = EXIT_FAILED;
        mIo.stop();
    };
    // Posted, so that it stands behind the line that tells of the session.
    options.onNotice = [this](std::string const& text) {
        asio::post(mIo, [text] { say("the host says: " + text); });
    };
    options.onBack = [this](uint16_t session) { sayProviding(session); };
    return options;
}

int Provider::run() {
    std::promise<void> readyForSignals;
    uint16_t const session =
            mHost.serve(mBusiness, [this, ready = readyForSignals.get_future().share()](
                                           client::Bytes payload, client::Responder responder) {
                ready.wait();
                requested({std::move(payload), std::move(responder)});
            });
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const&, int) { mIo.stop(); });
    readyForSignals.set_value();
    sayProviding(session);
    mIo.run();
    return mStatus;
}

void Provider::sayProviding(uint16_t session) const {
    say("providing " + mBusiness.toString() + " as session " + std::to_string(session));
}

void Provider::requested(Request request) {
    if (mOptions.echo) {
        request.responder.reply(request.payload);
        return;
    }
    asio::post(mIo, [this, request = std::move(request)]() mutable {
        mWaiting.push_back(std::move(request));
        startJobs();
    });
}

void Provider::startJobs() {
    while (!mWaiting.empty() && mJobs.size() < mOptions.jobs) {
        Request request = std::move(mWaiting.front());
        mWaiting.pop_front();
        client::Responder const responder = request.responder;
        try {
            startJob(std::move(request));
        } catch (std::runtime_error const& error) {
            giveUp(responder, error.what());
        }
    }
}

void Provider::giveUp(client::Responder const& request, std::string const& error) {
    say("no reply to message " + std::to_string(request.msgId()) + " of session " +
        std::to_string(request.session()) + ": " + error);
}

void Provider::startJob(Request request) {
    auto const job =
            std::make_shared<ExecJob>(mIo, mOptions.command, std::move(request.payload),
                                      std::chrono::milliseconds(mOptions.jobTimeoutMillis));
    mJobs.insert(job);
    job->run([this, responder = std::move(request.responder), key = std::weak_ptr<ExecJob>(job)](
                     client::Bytes const& bytes, std::string const& error) {
        error.empty() ? (void)responder.reply(bytes) : giveUp(responder, error);
        mJobs.erase(key.lock());
        startJobs();
    });
}

}  // namespace

int runProvide(ProvideOptions const& options) {
    neverWaitForStderr();
    asio::io_context io;
    return Provider(io, options).run();
}

}  // namespace vesk::tool
