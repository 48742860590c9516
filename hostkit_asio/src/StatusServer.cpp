#include <vesk/hostkit_asio/StatusServer.h>

#include <thread>
#include <utility>

#include <vesk/hostkit_asio/ClientServer.h>
#include <asio/io_context.hpp>
#include <asio/post.hpp>

namespace vesk::hostkit {

namespace {

void addCounters(HostStatus const& status, client::Counters& counters) {
    counters.channelUp = status.up ? 1 : 0;
    counters.pending = status.pending;
    counters.awaitingAck = status.awaitingAck;
    counters.owedAcks = status.owedAcks;
    counters.lastDelayMillis = status.delayMillis.value_or(0);
    counters.slowCount = status.slowDeliveries;
    counters.skippedBytes = status.skippedBytes;
    counters.reconnects = status.reconnects;
    counters.sentPackets = 0;
    counters.receivedPackets = 0;
    for (size_t kind = TrafficCounters::REQUESTS; kind < status.traffic.size(); ++kind) {
        counters.sentPackets += status.traffic[kind].out.frames;
        counters.receivedPackets += status.traffic[kind].in.frames;
    }
    // Sessions are what such a host has for clients; those who ask are none of them.
    counters.clients = 0;
    counters.providers = 0;
    for (HostStatus::Business const& business : status.businesses) {
        counters.clients += business.consumers + business.providers;
        counters.providers += business.providers;
    }
}

}  // namespace

class StatusServer::Impl {
public:
    Impl(std::string const& path, Source status, Report report)
        : mServer(mIo, path, {}, FlowLimits(), services(std::move(status), std::move(report))),
          mThread([this] { mIo.run(); }) {}

    ~Impl() {
        mIo.stop();
        mThread.join();
    }
    Impl(Impl const&) = delete;
    Impl& operator=(Impl const&) = delete;

    template <typename Task>
    void post(Task task) {
        asio::post(mIo, [this, task = std::move(task)] { task(mServer); });
    }

private:
    static ClientServer::Services services(Source status, Report report) {
        ClientServer::Services services;
        services.obstacle = [] { return SendGate::Obstacle::CHANNEL_DOWN; };
        services.holdChannel = [](bool) {};
        services.addCounters = [status](client::Counters& counters) {
            addCounters(status(), counters);
        };
        services.status = std::move(status);
        services.report = std::move(report);
        services.joins = false;
        return services;
    }

    asio::io_context mIo;
    ClientServer mServer;
    std::thread mThread;
};

StatusServer::StatusServer(std::string const& path, Source status, Report report)
    : mImpl(std::make_unique<Impl>(path, std::move(status), std::move(report))) {}

StatusServer::~StatusServer() = default;

void StatusServer::topicChanged(bool added, std::string const& topic) {
    mImpl->post([=](ClientServer& server) { server.topicChanged(added, topic); });
}

void StatusServer::providerChanged(bool added, std::string const& topic,
                                   std::string const& business) {
    mImpl->post([=](ClientServer& server) { server.providerChanged(added, topic, business); });
}

}  // namespace vesk::hostkit
