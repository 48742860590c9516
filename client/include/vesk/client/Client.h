#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include <vesk/VeskExport.h>
#include <vesk/client/BusinessName.h>
#include <vesk/client/ClientProtocol.h>
#include <vesk/client/Responder.h>

namespace vesk::client {

/**
 * A local process's connection to a host: as a consumer, which calls, as a provider, which serves,
 * or just to look.
 *
 * Order of calls: construct, (join() | serve())?, then call(), watch() and query() at will. One
 * connection joins once; who wants to provide two businesses makes two clients.
 *
 * Threads:   each client has a thread of its own that reads, keeps the time and runs every
 *            callback, one at a time. Every operation may be called from any thread and from inside
 *            a callback, but for those that wait: the constructor waits on the calling thread;
 *            join(), serve(), query(), status() and untap() throw std::logic_error inside a
 *            callback of this client, because the answer would have to come through the same
 *            thread. Nor may a callback wait for a future of this client.
 * Callbacks: no lock is held. While one runs, nothing is read: the host makes a client wait for its
 *            own slowness alone, and closes one that leaves its messages unread for too long (see
 *            ClientProtocol.h). An exception that leaves a callback ends the process.
 * Ownership: the destructor ends what is outstanding with LOST, and returns when no callback runs
 *            any more. Run inside a callback it returns at once, and the thread ends behind the
 *            callback. What has been sent and the socket does not take at once is dropped.
 * Order:     requests, replies and questions of one client leave in the order of their calls. While
 *            the host lets the requests wait (see ClientProtocol.h), or a provider does not read
 *            because it has maxUnanswered, the answers to query(), status() and untap() wait too,
 *            and those that wait for them may run into Options::limit. Who has to know at such a
 *            time asks by a client of its own, which has not joined.
 * Times:     milliseconds; those of requests begin when they are sent. A time of more than 34 years
 *            counts as 34 years, and a negative one as 0.
 */
class VESK_EXPORT Client {
public:
    struct Options {
        /** For the host to accept, and for each answer that an operation waits for. */
        std::chrono::milliseconds limit{10000};

        /**
         * Talk also to a host of another user. By default the process that listens must belong to
         * this process's effective user or to root: any other could read every request.
         */
        bool anyOwner = false;

        /**
         * When the host goes away, connect again, after 100 ms and then less and less often, down
         * to every 3200 ms; join, serve and watch there as before. What was outstanding ends with
         * LOST all the same: whether it was executed is not known.
         */
        bool reconnect = false;

        /**
         * Bytes that may wait for the host to read them. With more, call() sends nothing, and a
         * provider reads no further request.
         */
        size_t maxBacklog = size_t{8} * 1024 * 1024;

        /**
         * Bytes of requests that a provider may be at work on. A request counts, with its payload
         * and 64 bytes, as long as there is a Responder for it; with more, nothing more is read.
         */
        size_t maxUnanswered = size_t{1024} * 1024;

        /**
         * The host is gone, or not understood, or has refused something: for good, or until onBack
         * where `reconnect` says so. Called once for each loss. May be empty.
         */
        std::function<void(std::string const& reason)> onLost = {};

        /** Connected again, with this session id; 0 without join() and serve(). May be empty. */
        std::function<void(uint16_t session)> onBack = {};

        /**
         * The host says something that a person may want to know: to a provider, that it takes over
         * the requests of another client or the other way round; after watch(), also which clients
         * come and go, and what becomes of the channel. The words may change. May be empty; a
         * host from before version 2.0 refuses a client with one.
         */
        std::function<void(std::string const& text)> onNotice = {};
    };

    enum class Outcome {
        REPLIED,
        TIMED_OUT,  // a reply that comes later is dropped; it is never taken for another one
        LOST,       // the host went away, or this client was destroyed
        NOT_SENT,   // of the call() that gives a future: the other one says why
    };

    /** What came of a request; `payload` is empty unless it is REPLIED. */
    struct Reply {
        Outcome outcome = Outcome::NOT_SENT;
        Bytes payload;
    };

    enum class Sent {
        YES,
        NOT_CONNECTED,
        FULL,  // more than maxBacklog bytes wait already
        NO_ID  // all 65,536 message ids are outstanding or given up and never answered
    };

    using Done = std::function<void(Reply reply)>;

    /** Gets each request and what answers it, now or later. */
    using Handler = std::function<void(Bytes payload, Responder responder)>;

    /** What watch() tells; on a new connection all that is present is added again. */
    struct Watcher {
        std::function<void(bool added, std::string const& topic)> onTopic;
        std::function<void(bool added, BusinessName const& business)> onProvider;
    };

    /**
     * Connects to the host that serves `path`. Throws std::runtime_error where there is none, none
     * that accepts in time, or one of another user.
     */
    explicit Client(std::string const& path) : Client(path, Options{}) {}
    Client(std::string const& path, Options options);
    ~Client();
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    /**
     * Becomes a consumer of a business, and returns the session id. Waits for the answer.
     *
     * Throws std::invalid_argument with the host's words when it refuses, as where it knows no such
     * business, and std::runtime_error when it does not answer; then this client is of no use any
     * more.
     */
    uint16_t join(BusinessName const& business);

    /** Becomes a provider of a business; as join(). Requests go to `handler` from now on. */
    uint16_t serve(BusinessName const& business, Handler handler);

    /**
     * Sends a request. Throws std::invalid_argument for a payload of more than 65,535 bytes and
     * std::logic_error for one who has not joined.
     *
     * @param done is called exactly once where the result is YES, on the client's thread and
     *             perhaps before this returns, and never where it is not. May be empty.
     */
    Sent call(Bytes payload, std::chrono::milliseconds timeout, Done done);

    /** The same, to wait for. */
    std::future<Reply> call(Bytes payload, std::chrono::milliseconds timeout);

    /** Topics and providers: what is present now, and every change. Once for each client. */
    void watch(Watcher watcher);

    /** The host's counters. Throws std::runtime_error when none come. */
    Counters query();

    /** The same without waiting. `done` is called exactly once, without counters for a failure. */
    void query(std::function<void(std::optional<Counters> const& counters)> done);

    /**
     * What the host tells about itself, for a person or as one JSON object. Waits for it, and
     * throws std::runtime_error when it does not come. A host of an older version refuses the
     * question.
     */
    std::string status(StatusFormat format);

    /** The same without waiting. `done` is called exactly once, without a text for a failure. */
    void status(StatusFormat format,
                std::function<void(std::optional<std::string> const& text)> done);

    /**
     * Gets each frame that the host's channel carries from now on, both ways and also those of
     * other clients; on a new connection again. A client that is slow misses some, and slows
     * nobody.
     * Both callbacks run on the client's thread. Once for each client; only the host's user and
     * root may, any other client is refused.
     *
     * @param onSkipped called between the frames, where bytes came in that belong to none; may be
     *                  empty.
     */
    void tap(std::function<void(TappedMessage const& tapped)> onFrame,
             std::function<void(SkippedMessage const& skipped)> onSkipped = {});

    /**
     * Ends that for good, and returns how many frames were missed on this connection. Waits for the
     * host to tell, and throws std::runtime_error when it does not.
     */
    uint64_t untap();

    /**
     * Runs a task on the client's thread, between two callbacks: what only callbacks and tasks use
     * needs no lock. One that has not begun when the client is destroyed never does.
     */
    void post(std::function<void()> task);

    /** Whether there is a host now, and it has let this client join where it asked to. */
    bool connected() const;

private:
    class Impl;
    std::shared_ptr<Impl> const mImpl;
};

}  // namespace vesk::client
