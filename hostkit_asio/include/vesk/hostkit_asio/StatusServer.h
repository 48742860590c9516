#pragma once

#include <functional>
#include <memory>
#include <string>

#include <vesk/hostkit/HostStatus.h>
#include <vesk/hostkit_asio/Report.h>

namespace vesk::hostkit {

/**
 * Lets `vesk status`, `vesk watch`, and every vesk::client::Client that does not join, ask a host
 * of any kind: on a Unix socket of its own, with the messages of client/ClientProtocol.h. Who wants
 * to join is refused. A host with a ClientServer needs none: that one answers the same questions.
 *
 * The host makes it before its first topic, and hands on what VeskCallback notifies it of.
 *
 * Threads: it has a thread of its own, on which it calls `status` and `report`. Every operation may
 *          be called from any thread. The destructor returns when neither runs any more.
 */
class StatusServer {
public:
    /** What HostStatus::of() gives, for example. Must not be empty. */
    using Source = std::function<HostStatus()>;

    /** Throws std::runtime_error where it cannot listen on `path`. */
    StatusServer(std::string const& path, Source status, Report report);
    ~StatusServer();
    StatusServer(StatusServer const&) = delete;
    StatusServer& operator=(StatusServer const&) = delete;

    /** To be called by VeskCallback::notifyTopicChanged(). */
    void topicChanged(bool added, std::string const& topic);

    /** To be called by VeskCallback::notifyBusinessChanged(). */
    void providerChanged(bool added, std::string const& topic, std::string const& business);

private:
    class Impl;
    std::unique_ptr<Impl> const mImpl;
};

}  // namespace vesk::hostkit
