#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/Outbox.h>
#include <vesk/hostkit_asio/ChannelWatcher.h>
#include <vesk/hostkit_asio/Endpoint.h>
#include <vesk/hostkit_asio/Report.h>
#include <asio/io_context.hpp>

namespace vesk::hostkit {

/**
 * The one byte channel of a host: opens it, opens it again with a bounded back-off when it drops,
 * cuts what arrives into frames, and writes what the library hands out.
 *
 * Threads: write() from any thread, at any time until destruction. Everything else, and every
 *          event, on the one thread that runs the io_context.
 * Loss:    what has not left when the channel drops is gone, like what the library itself drops
 *          then; bytes written while it is down go the same way.
 * Memory:  write() never blocks and never refuses, so whoever feeds the library looks at a
 *          SendGate on outbox().
 */
class Channel {
public:
    struct Events {
        std::function<void(bool up)> onState;
        FrameReader::FrameHandler onFrame;
        std::function<void()> onProgress;  // bytes have come in or gone out
        std::function<void()> onEnd;       // of stdio: alone: it is down for good
        Report report;
        ChannelWatcher* watcher = nullptr;  // not owned; must outlive the channel

        /**
         * So many bytes have come in since the last call that belong to no frame: called before the
         * frame behind them, or when no more of them come. May be empty.
         */
        std::function<void(uint64_t bytes)> onSkipped = {};
    };

    /**
     * Throws std::invalid_argument for what cannot be, as to listen at a device, and
     * std::runtime_error where it cannot listen. `catalogue` must outlive the channel.
     */
    Channel(asio::io_context& io, Endpoint const& endpoint, bool listen,
            VeskConfig const& catalogue, Events events);
    ~Channel();
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    /** Opens the channel for the first time. */
    void start();

    /** Appends bytes, which leave in this order. */
    void write(std::vector<uint8_t> bytes);

    /**
     * While held, nothing is read, so that the peer comes to a stop, and nothing is handed on but
     * the frames of the 4 KiB that are just being gone through. That the peer has left may then be
     * noticed only on release or when a write fails; what was read before is handed on then.
     */
    void hold(bool held);

    bool up() const;

    /** What is on its way out, for a SendGate and a HostStatus; open while the channel is up. */
    Outbox const& outbox() const;

    /** What comes in, for a HostStatus. */
    FrameReader const& reader() const;

    /** For how many milliseconds the channel has been up, or down. */
    uint64_t stateMillis() const;

    /** How often the channel came up again after a drop. */
    uint64_t reconnects() const;

private:
    class Impl;
    std::unique_ptr<Impl> const mImpl;
};

}  // namespace vesk::hostkit
