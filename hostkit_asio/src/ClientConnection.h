#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <vesk/client/ClientProtocol.h>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

namespace vesk::hostkit {

/**
 * The host's end of one client's connection: messages in, messages out.
 *
 * Back-pressure: the owner may leave a message for later: the client is parked. Nothing more is
 * read from it until then, so that it comes to a stop in its own send.
 *
 * A client is congested from when more than CONGESTED bytes wait for it until less than RELIEVED
 * do. Then it holds(): the owner sees to it that no more come. It may do so for PATIENCE and is
 * closed when it is not relieved by then, because others wait for it. A client that is parked is
 * not closed: it may be one that finishes its send before it reads on, and then it is the host
 * that keeps it from reading. When that lasts for STANDSTILL, the host may be waiting for itself
 * or for another one that does the same; so the client lets go until it is parked no more. What
 * comes meanwhile is kept for it up to LIMIT, which no client may exceed.
 *
 * Threads: the one that runs the io_context.
 */
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
public:
    static constexpr size_t CONGESTED = size_t{8} * 1024 * 1024;
    static constexpr size_t RELIEVED = CONGESTED / 2;
    static constexpr size_t LIMIT = CONGESTED * 4;
    static constexpr std::chrono::milliseconds PATIENCE{3000};
    static constexpr std::chrono::milliseconds STANDSTILL{50};

    class Owner {
    public:
        /** Returns false to get the same message again from resume(). */
        virtual bool onMessage(ClientConnection& client, client::Message const& message) = 0;
        /** Bytes that are no messages came; refuse() is expected. */
        virtual void onBadMessage(ClientConnection& client, std::string const& reason) = 0;
        /** congested() or holds() has changed. */
        virtual void onCongestion(ClientConnection& client) = 0;
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

    void send(client::Bytes const& message);

    /** Tells the client why, and closes when that has been written. */
    void refuse(std::string const& reason);

    void close(std::string const& reason);
    bool closed() const { return mClosed; }

    /** Whether too much waits for it; never so for a client that is closed. */
    bool congested() const { return mCongested; }

    /** Whether it is congested and has not let go, so that nothing more should come for it. */
    bool holds() const { return mCongested && !mLetGo; }

    /** Whether it was closed because it did not read enough. */
    bool evicted() const { return mEvicted; }

private:
    void read();
    void process();
    void write();
    void wrote(size_t size);
    size_t backlog() const { return mWaiting.size() + mLeaving.size() - mLeft; }
    void update(bool parked);
    void watchCongestion();
    void outOfTime();
    void evict(std::string const& reason);

    uint32_t const mId;
    asio::local::stream_protocol::socket mSocket;
    Owner& mOwner;
    std::array<uint8_t, size_t{64} * 1024> mChunk{};
    client::MessageReader mReader;
    client::Message mMessage;
    bool mParked = false;  // mMessage waits for the owner to take it
    client::Bytes mWaiting;
    client::Bytes mLeaving;  // not empty while a write runs
    size_t mLeft = 0;        // this much of mLeaving has been taken
    asio::steady_timer mPatience;
    bool mCongested = false;
    bool mLetGo = false;
    bool mRefused = false;
    bool mClosed = false;
    bool mEvicted = false;
};

}  // namespace vesk::hostkit
