#include "ProvideCommand.h"

#include <deque>
#include <memory>
#include <set>
#include <stdexcept>

#include <vesk/client/HostClient.h>
#include <vesk/hostkit_asio/Endpoint.h>
#include <asio/io_context.hpp>

#include "EndSignals.h"
#include "Errors.h"
#include "ExecJob.h"

namespace vesk::tool {

namespace {

/**
 * Reads every request at once and keeps those that wait for a free job, so that its need of memory
 * is bounded by what its consumers have outstanding.
 */
class Provider {
public:
    Provider(asio::io_context& io, ProvideOptions const& options);

    /** 0 after a signal, 1 when the host went away. */
    int run();

private:
    void requested(client::Message const& message);
    void reply(client::DataMessage const& request, client::Bytes const& payload);
    void startJobs();
    void startJob(client::DataMessage request);
    void giveUp(client::DataMessage const& request, std::string const& error);

    asio::io_context& mIo;
    ProvideOptions const& mOptions;
    client::BusinessName const mBusiness;
    client::HostClient mHost;
    std::deque<client::DataMessage> mWaiting;
    std::set<std::shared_ptr<ExecJob>> mJobs;
    int mStatus = EXIT_OK;
};

Provider::Provider(asio::io_context& io, ProvideOptions const& options)
    : mIo(io),
      mOptions(options),
      mBusiness(client::BusinessName::parse(options.business)),
      mHost(io, hostkit::parseUnixPath("--host", options.host)) {}

int Provider::run() {
    uint16_t const session = mHost.join(client::HostClient::PROVIDER, mBusiness);
    say("providing " + mBusiness.toString() + " as session " + std::to_string(session));
    EndSignals signals(mIo);
    signals.async_wait([this](asio::error_code const&, int) { mIo.stop(); });
    mHost.start([this](client::Message const& message) { requested(message); },
                [this](std::string const& reason) {
                    say(reason);
                    mStatus = EXIT_FAILED;
                    mIo.stop();
                });
    mIo.run();
    return mStatus;
}

void Provider::requested(client::Message const& message) {
    std::optional<client::DataMessage> request = client::DataMessage::decode(message.body);
    if (message.type != client::MessageType::REQUEST || !request) return;
    if (mOptions.echo) return reply(*request, request->payload);
    mWaiting.push_back(std::move(*request));
    startJobs();
}

void Provider::reply(client::DataMessage const& request, client::Bytes const& payload) {
    mHost.send(client::DataMessage::encode(client::MessageType::REPLY, request.session,
                                           request.msgId, payload));
}

void Provider::startJobs() {
    while (!mWaiting.empty() && mJobs.size() < mOptions.jobs) {
        client::DataMessage const request = std::move(mWaiting.front());
        mWaiting.pop_front();
        try {
            startJob(request);
        } catch (std::runtime_error const& error) {
            giveUp(request, error.what());
        }
    }
}

void Provider::giveUp(client::DataMessage const& request, std::string const& error) {
    say("no reply to message " + std::to_string(request.msgId) + " of session " +
        std::to_string(request.session) + ": " + error);
}

void Provider::startJob(client::DataMessage request) {
    auto const job = std::make_shared<ExecJob>(mIo, mOptions.command, std::move(request.payload));
    request.payload.clear();
    mJobs.insert(job);
    job->run([this, request, key = std::weak_ptr<ExecJob>(job)](client::Bytes const& bytes,
                                                                std::string const& error) {
        error.empty() ? reply(request, bytes) : giveUp(request, error);
        mJobs.erase(key.lock());
        startJobs();
    });
}

}  // namespace

int runProvide(ProvideOptions const& options) {
    asio::io_context io;
    return Provider(io, options).run();
}

}  // namespace vesk::tool
