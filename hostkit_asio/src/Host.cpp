#include <vesk/hostkit_asio/Host.h>

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include <vesk/Vesk.h>
#include <vesk/hostkit/CatalogueNames.h>
#include <vesk/hostkit/HostStatus.h>
#include <vesk/hostkit/SendGate.h>
#include <vesk/hostkit/TrafficCounters.h>
#include <vesk/hostkit_asio/Channel.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <vesk/hostkit_asio/Tap.h>

#include "HostCallback.h"

namespace vesk::hostkit {

namespace {

// With no topic named, all are served.
Host::Options withTopics(Host::Options options) {
    std::vector<std::string> const known = topicNames(*Vesk::getInstance()->getConfig());
    std::set<std::string> named;
    for (auto const* topics : {&options.topics, &options.localTopics}) {
        for (std::string const& topic : *topics) {
            if (std::find(known.begin(), known.end(), topic) == known.end()) {
                throw std::invalid_argument("there is no topic '" + topic +
                                            "'; the known ones are: " + joinNames(known));
            }
            if (!named.insert(topic).second) {
                throw std::invalid_argument("the topic '" + topic +
                                            "' is named twice; name it once, with " +
                                            "the peer or among local clients");
            }
        }
    }
    if (named.empty()) options.topics = known;
    return options;
}

SendGate::Limits gateLimits(FlowLimits const& flow) {
    SendGate::Limits limits;
    limits.highWatermark = flow.backlogHigh;
    limits.lowWatermark = flow.backlogLow;
    limits.readWatermark = flow.backlogRead;
    return limits;
}

bool isSameFile(std::string const& one, std::string const& other) {
    struct stat a {};
    struct stat b {};
    return ::stat(one.c_str(), &a) == 0 && ::stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

// A host that is its own peer would take its clients' messages for frames.
void refuseOwnSocket(Host::Options const& options) {
    Endpoint const& channel = options.channel;
    bool const isUnix = channel.kind == Endpoint::Kind::UNIX;
    if (isUnix && (channel.path == options.clients || isSameFile(channel.path, options.clients))) {
        throw std::invalid_argument("the channel '" + channel.toString() +
                                    "' is this host's own socket for clients; give each a path " +
                                    "of its own");
    }
}

Endpoint channelEndpoint(Host::Options const& options) {
    refuseOwnSocket(options);
    Endpoint endpoint = options.channel;
    endpoint.access = options.access;
    return endpoint;
}

}  // namespace

class Host::Impl {
public:
    Impl(asio::io_context& io, Options const& options);
    ~Impl() { mCallback->detach(); }
    Impl(Impl const&) = delete;
    Impl& operator=(Impl const&) = delete;

private:
    Channel::Events channelEvents(Options const& options);
    ClientServer::Services services(Options const& options);
    void createTopics(Options const& options);
    void channelChanged(bool up);
    void progressed();
    void holdChannel();
    void received(std::shared_ptr<VeskFrame> const& frame);
    void addCounters(client::Counters& counters) const;
    HostStatus status() const;

    std::shared_ptr<VeskQueue> const mQueue = Vesk::getInstance()->getQueue();
    Report const mReport;
    TrafficCounters mTraffic;
    Tap mTap;
    Channel mChannel;
    SendGate const mGate;
    bool mClientsHold = false;
    ClientServer mClients;
    android::sp<HostCallback> const mCallback;
};

Host::Impl::Impl(asio::io_context& io, Options const& options)
    : mReport(options.report),
      mChannel(io, channelEndpoint(options), options.listen, *Vesk::getInstance()->getConfig(),
               channelEvents(options)),
      mGate(*mQueue, mChannel.outbox(), gateLimits(options.limits)),
      mClients(io, options.clients, {options.localTopics.begin(), options.localTopics.end()},
               options.limits, services(options)),
      mCallback(new HostCallback(mChannel, mClients, mTraffic, mTap)) {
    refuseOwnSocket(options);  // by another name, now that it is there
    Vesk::getInstance()->init(mCallback);
    createTopics(options);
    mReport("serving clients on unix:" + options.clients);
    mChannel.start();
}

Channel::Events Host::Impl::channelEvents(Options const& options) {
    return {[this](bool up) { channelChanged(up); },
            [this](std::shared_ptr<VeskFrame> const& frame) { received(frame); },
            [this] { progressed(); },
            options.onEnd,
            mReport,
            options.watcher,
            [this](uint64_t bytes) { mTap.skipped(bytes); }};
}

ClientServer::Services Host::Impl::services(Options const& options) {
    return {[this] { return mGate.obstacle(); },
            [this](bool hold) {
                mClientsHold = hold;
                holdChannel();
            },
            [this](client::Counters& counters) { addCounters(counters); },
            [this] { return status(); },
            mReport,
            true,
            options.access,
            &mTap};
}

void Host::Impl::createTopics(Options const& options) {
    for (std::string const& topic : options.topics)
        Vesk::getInstance()->createTopic(topic, false);
    for (std::string const& topic : options.localTopics) {
        Vesk::getInstance()->createTopic(topic, true);
    }
}

void Host::Impl::channelChanged(bool up) {
    if (!up && !mQueue->empty()) {
        mReport(std::to_string(mQueue->size()) + " queued frames are lost with the channel");
    }
    Vesk::getInstance()->onChannelAvailable(up);
    mClients.announce(up ? "the channel is up" : "the channel is down");
    holdChannel();
    mClients.resume();
}

void Host::Impl::progressed() {
    holdChannel();
    mClients.resume();
}

// Each frame that comes is acknowledged, whether or not the peer reads that.
void Host::Impl::holdChannel() {
    mChannel.hold(mClientsHold || !mGate.mayRead());
}

void Host::Impl::received(std::shared_ptr<VeskFrame> const& frame) {
    mTraffic.in(*frame);
    mTap.in(*frame);
    mQueue->receiveFromChannel(frame);
}

HostStatus Host::Impl::status() const {
    HostStatus status =
            HostStatus::of(*Vesk::getInstance(), mTraffic, &mChannel.outbox(), &mChannel.reader());
    status.channelMillis = mChannel.stateMillis();
    status.reconnects = mChannel.reconnects();
    return status;
}

void Host::Impl::addCounters(client::Counters& counters) const {
    VeskFeedback const& feedback = mQueue->feedback();
    counters.channelUp = mChannel.up() ? 1 : 0;
    counters.pending = static_cast<uint64_t>(mQueue->size());
    counters.awaitingAck = mQueue->awaitingAck();
    counters.owedAcks = mQueue->owedAcks();
    counters.lastDelayMillis = feedback.delay();
    counters.slowCount = feedback.slowCount();
    counters.sentPackets = feedback.sentPackets();
    counters.receivedPackets = feedback.receivedPackets();
    counters.skippedBytes = mChannel.reader().skippedBytes();
    counters.reconnects = mChannel.reconnects();
}

Host::Host(asio::io_context& io, Options options)
    : mImpl(std::make_unique<Impl>(io, withTopics(std::move(options)))) {}

Host::~Host() = default;

}  // namespace vesk::hostkit
