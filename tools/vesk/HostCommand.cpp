#include "HostCommand.h"

#include <sys/resource.h>

#include <algorithm>
#include <memory>
#include <set>

#include <vesk/Vesk.h>
#include <vesk/hostkit/CatalogueNames.h>
#include <vesk/hostkit/SendGate.h>
#include <vesk/hostkit_asio/CaptureFile.h>
#include <vesk/hostkit_asio/Channel.h>
#include <vesk/hostkit_asio/ClientServer.h>
#include <asio/io_context.hpp>

#include "EndSignals.h"
#include "Errors.h"
#include "HostCallback.h"

namespace vesk::tool {

namespace {

std::unique_ptr<hostkit::CaptureFile> openCapture(HostOptions const& options) {
    if (options.capture.empty()) return nullptr;
    return std::make_unique<hostkit::CaptureFile>(options.capture, options.captureLimit,
                                                  "vesk host " VESK_VERSION, say);
}

hostkit::SendGate::Limits gateLimits(hostkit::FlowLimits const& flow) {
    hostkit::SendGate::Limits limits;
    limits.highWatermark = flow.backlogHigh;
    limits.lowWatermark = flow.backlogLow;
    limits.readWatermark = flow.backlogRead;
    return limits;
}

/**
 * The host proper: the library between one channel and many clients.
 *
 * One thread runs it all. The library's looper is the only other one, and reaches no further than
 * the channel's buffer.
 */
class Host {
public:
    Host(asio::io_context& io, HostOptions const& options);
    ~Host() { mCallback->detach(); }
    Host(Host const&) = delete;
    Host& operator=(Host const&) = delete;

private:
    hostkit::Channel::Events channelEvents();
    hostkit::ClientServer::Services services();
    void createTopics(HostOptions const& options);
    void channelChanged(bool up);
    void progressed();
    void holdChannel();
    void addCounters(client::Counters& counters) const;

    std::shared_ptr<VeskQueue> const mQueue = Vesk::getInstance()->getQueue();
    std::unique_ptr<hostkit::CaptureFile> const mCapture;
    hostkit::FlowLimits const mLimits;
    hostkit::Channel mChannel;
    hostkit::SendGate const mGate;
    bool mClientsHold = false;
    hostkit::ClientServer mClients;
    android::sp<HostCallback> const mCallback;
};

Host::Host(asio::io_context& io, HostOptions const& options)
    : mCapture(openCapture(options)),
      mLimits(options.memoryMib * hostkit::FlowLimits::MIB),
      mChannel(io, hostkit::Endpoint::parse(options.channel), options.listen,
               *Vesk::getInstance()->getConfig(), channelEvents()),
      mGate(*mQueue, mChannel.outbox(), gateLimits(mLimits)),
      mClients(io, hostkit::parseUnixPath("--clients", options.clients),
               {options.localTopics.begin(), options.localTopics.end()}, mLimits, services()),
      mCallback(new HostCallback(mChannel, mClients)) {
    Vesk::getInstance()->init(mCallback);
    createTopics(options);
    say("serving clients on " + options.clients);
    mChannel.start();
}

hostkit::Channel::Events Host::channelEvents() {
    return {[this](bool up) { channelChanged(up); },
            [this](std::shared_ptr<VeskFrame> const& frame) { mQueue->receiveFromChannel(frame); },
            [this] { progressed(); }, say, mCapture.get()};
}

hostkit::ClientServer::Services Host::services() {
    return {[this] { return mGate.obstacle(); },
            [this](bool hold) {
                mClientsHold = hold;
                holdChannel();
            },
            [this](client::Counters& counters) { addCounters(counters); }, say};
}

void Host::createTopics(HostOptions const& options) {
    for (std::string const& topic : options.topics)
        Vesk::getInstance()->createTopic(topic, false);
    for (std::string const& topic : options.localTopics) {
        Vesk::getInstance()->createTopic(topic, true);
    }
}

void Host::channelChanged(bool up) {
    if (!up && !mQueue->empty()) {
        say(std::to_string(mQueue->size()) + " queued frames are lost with the channel");
    }
    Vesk::getInstance()->onChannelAvailable(up);
    holdChannel();
    mClients.resume();
}

void Host::progressed() {
    holdChannel();
    mClients.resume();
}

// Each frame that comes is acknowledged, whether or not the peer reads that.
void Host::holdChannel() {
    mChannel.hold(mClientsHold || !mGate.mayRead());
}

void Host::addCounters(client::Counters& counters) const {
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

// Each client takes a descriptor; a few are the host's own.
void raiseDescriptorLimit() {
    rlimit limit{};
    rlim_t const wanted = hostkit::FlowLimits::CLIENTS + 64;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) return;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// With no topic named, all are served.
HostOptions withTopics(HostOptions options) {
    std::vector<std::string> const known = hostkit::topicNames(*Vesk::getInstance()->getConfig());
    std::set<std::string> named;
    for (auto const* topics : {&options.topics, &options.localTopics}) {
        for (std::string const& topic : *topics) {
            if (std::find(known.begin(), known.end(), topic) == known.end()) {
                throw UsageError("there is no topic '" + topic +
                                 "'; the known ones are: " + hostkit::joinNames(known));
            }
            if (!named.insert(topic).second) {
                throw UsageError("the topic '" + topic + "' is named twice; name it once, with " +
                                 "--topic or with --local-topic");
            }
        }
    }
    if (named.empty()) options.topics = known;
    return options;
}

}  // namespace

int runHost(HostOptions const& options) {
    asio::io_context io;
    EndSignals signals(io);
    signals.async_wait([&io](asio::error_code const&, int) { io.stop(); });
    raiseDescriptorLimit();
    Host const host(io, withTopics(options));
    io.run();
    return EXIT_OK;
}

}  // namespace vesk::tool
