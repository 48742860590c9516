#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>

#include <vesk/client/BusinessName.h>
#include <vesk/client/ClientProtocol.h>

namespace vesk::client {

/**
 * A client's end of its connection to a host.
 *
 * The order of calls: construct, (join() | query())*, start()?, send()*.
 * Threads: the one that runs the io_context.
 */
class HostClient {
public:
    static constexpr int CONSUMER = 1;
    static constexpr int PROVIDER = 2;

    using MessageHandler = std::function<void(Message const& message)>;
    using ClosedHandler = std::function<void(std::string const& reason)>;

    /**
     * Connects to the host that serves `path`; throws std::runtime_error where there is none, or
     * none that accepts within `limit`. Each answer of join() and query() has as long to come.
     */
    HostClient(asio::io_context& io, std::string const& path,
               std::chrono::milliseconds limit = std::chrono::seconds(10));
    HostClient(HostClient const&) = delete;
    HostClient& operator=(HostClient const&) = delete;

    /**
     * Joins a business and waits for the answer. Returns the session id; throws std::invalid_argument with the
     * host's words when it refuses and std::runtime_error when it goes away.
     */
    uint16_t join(int role, BusinessName const& business);

    /** Asks for the host's counters and waits for them. Throws std::runtime_error. */
    Counters query();

    /** From now on messages go to `onMessage`; `onClosed` is called once, as the last. */
    void start(MessageHandler onMessage, ClosedHandler onClosed);

    /** Queues a message that encode() made. */
    void send(Bytes const& message);

private:
    Message ask(Bytes const& question);
    Message receive();
    void read();
    void handOver();
    void write();
    void closed(std::string const& reason);

    void awaitBytes(std::chrono::steady_clock::time_point deadline);

    std::chrono::milliseconds const mLimit;
    asio::local::stream_protocol::socket mSocket;
    std::array<uint8_t, size_t{64} * 1024> mChunk{};
    MessageReader mReader;
    MessageHandler mOnMessage;
    ClosedHandler mOnClosed;
    Bytes mWaiting;
    Bytes mLeaving;  // not empty while a write runs
};

}  // namespace vesk::client
