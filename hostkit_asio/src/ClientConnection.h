#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <vesk/client/ClientProtocol.h>
#include <vesk/hostkit_asio/FlowLimits.h>
#include <asio/local/stream_protocol.hpp>

#include "Backlog.h"

namespace vesk::hostkit {

/**
 * The host's end of one client's connection: messages in, messages out.
 *
 * A message stays in the socket until the owner takes it, so a client whose message is not taken is
 * paused: nothing is read from it until resume(), and it comes to a stop in its own send. Only of a
 * message that has not come whole the beginning is kept here, once the owner has found room for it.
 * A client that leaves while it is paused takes with it what it had not handed over.
 *
 * What waits for a client is kept up to a limit; a client beyond it is evicted.
 *
 * Threads: the one that runs the io_context.
 */
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
public:
    class Owner {
    public:
        /** Returns false to get the same message again after resume(). */
        virtual bool onMessage(ClientConnection& client, client::Message const& message) = 0;
        /**
         * A message has come in part, of which `size` bytes have to be kept. Returns false to be
         * asked again after resume(). Otherwise it is brought to its end, and offered then.
         */
        virtual bool onPart(ClientConnection& client, size_t size) = 0;
        /** Bytes that are no messages came; refuse() is expected. */
        virtual void onBadMessage(ClientConnection& client, std::string const& reason) = 0;
        /** Something was added to what waits for it, or has left. */
        virtual void onBacklog(ClientConnection& client) = 0;
        /** Once, from the io_context; the connection is not used any more. */
        virtual void onClosed(ClientConnection& client, std::string const& reason) = 0;

    protected:
        ~Owner() = default;
    };

    /** What the connections of one owner share, because each needs it only for moments. */
    struct Shared {
        client::Bytes chunk = client::Bytes(client::MessageReader::MAX_SIZE);
        client::Message message;
        size_t backlog = 0;  // bytes that wait for all of them
    };

    ClientConnection(uint32_t id, asio::local::stream_protocol::socket socket, Owner& owner,
                     std::shared_ptr<Shared> shared, size_t limit);

    uint32_t id() const { return mId; }

    /** Begins to read. Call it once the connection is held by a shared_ptr. */
    void start();

    /** Offers again what the owner has not taken, and goes on reading. Not from a callback. */
    void resume();
    bool paused() const { return mPaused; }

    void send(client::Bytes message);

    /** Tells the client why, and closes when that has been written. */
    void refuse(std::string const& reason);

    void close(std::string const& reason);
    bool closed() const { return mClosed; }

    /** Closes it because it is slow. */
    void evict(std::string const& reason);
    bool evicted() const { return mEvicted; }

    size_t backlog() const { return mBacklog.bytes(); }

    /** Whether the client is of the host's user or of root. */
    bool isTrusted();

    /** Since when the first of what waits for it has been waiting; now where nothing does. */
    Backlog::Clock::time_point waitingSince() const;

    /**
     * The same, for the client alone: the time in which the host did not read from it does not
     * count, for it may be one that finishes its send before it reads on.
     */
    Backlog::Clock::time_point excusedSince() const;

    /** Whether a part of a message is kept, and since when its rest is awaited. */
    bool hasPart() const { return !mPart.empty(); }
    Backlog::Clock::time_point partSince() const { return mPartSince; }

private:
    void awaitBytes();
    void awaitEnd();
    void take();
    void takeWhole();
    void takePart();
    ssize_t receive(uint8_t* bytes, size_t size, int flags);
    void handOver(size_t size);
    client::MessageReader::Result offer(uint8_t const* bytes, size_t size, size_t& taken);
    void beginPart(size_t size);
    void discard(size_t size);
    void pause();
    void write();
    void wrote(size_t size);

    uint32_t const mId;
    asio::local::stream_protocol::socket mSocket;
    Owner& mOwner;
    std::shared_ptr<Shared> const mShared;  // a connection may outlive its owner by a handler
    size_t const mLimit;
    client::Bytes mPart;  // the beginning of a message, or one that waits to be taken
    Backlog::Clock::time_point mPartSince;
    Backlog mBacklog;
    Backlog::Clock::time_point mResumed;
    bool mWriting = false;
    bool mAwaiting = false;  // bytes
    bool mPaused = false;
    bool mGone = false;  // the client has closed its end; what it has sent may still be read
    bool mRefused = false;
    bool mClosed = false;
    bool mEvicted = false;
};

}  // namespace vesk::hostkit
