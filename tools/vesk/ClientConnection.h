#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include "ClientProtocol.h"

namespace vesk::tool {

/**
 * The host's end of one client's connection: messages in, messages out.
 *
 * Back-pressure: the owner may leave a message for later. Nothing more is read from the client
 * until then, so that it comes to a stop in its own send.
 *
 * A client that reads too slowly is congested once CONGESTED bytes wait for it; the owner then sees to
 * it that no more come. It is closed only when it reads nothing at all for PATIENCE: a slow client
 * loses nothing, and a dead one holds the others up no longer than that.
 *
 * Threads: the one that runs the io_context.
 */
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
public:
    static constexpr size_t CONGESTED = size_t{8} * 1024 * 1024;
    static constexpr std::chrono::seconds PATIENCE{3};

    class Owner {
    public:
        /** Returns false to get the same message again from resume(). */
        virtual bool onMessage(ClientConnection& client, Message const& message) = 0;
        /** Bytes that are no messages came; refuse() is expected. */
        virtual void onBadMessage(ClientConnection& client, std::string const& reason) = 0;
        /** Too much waits for the client, or no longer so; a client that is closed is not. */
        virtual void onCongestion(ClientConnection& client, bool congested) = 0;
        /** Once, from the io_context; the connection is not used any more. */
        virtual void onClosed(ClientConnection& client, std::string const& reason) = 0;

    protected:
        ~Owner() = default;
    };

    ClientConnection(uint32_t id, asio::local::stream_protocol::socket socket, Owner& owner);

    uint32_t id() const { return mId; }

    /** Begins to read. Call it once the connection is held by a shared_ptr. */
    void start() { read(); }

    /** Offers the message that the owner left for later, and goes on reading. */
    void resume() { process(); }

    void send(Bytes const& message);

    /** Tells the client why, and closes when that has been written. */
    void refuse(std::string const& reason);

    void close(std::string const& reason);
    bool closed() const { return mClosed; }

    /** Whether it was closed because it did not read. */
    bool evicted() const { return mEvicted; }

private:
    void read();
    void process();
    bool handOver();
    void write();
    void wrote(size_t size);
    size_t backlog() const { return mWaiting.size() + mLeaving.size() - mLeft; }
    void setCongested(bool congested);
    void watchCongestion();

    uint32_t const mId;
    asio::local::stream_protocol::socket mSocket;
    Owner& mOwner;
    std::array<uint8_t, size_t{64} * 1024> mChunk{};
    MessageReader mReader;
    Message mMessage;
    bool mHasMessage = false;  // mMessage waits for the owner to take it
    Bytes mWaiting;
    Bytes mLeaving;    // not empty while a write runs
    size_t mLeft = 0;  // this much of mLeaving has been taken
    asio::steady_timer mPatience;
    bool mCongested = false;
    bool mReads = false;  // since mPatience was set
    bool mRefused = false;
    bool mClosed = false;
    bool mEvicted = false;
};

}  // namespace vesk::tool
