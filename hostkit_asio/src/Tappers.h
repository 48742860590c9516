#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <vesk/hostkit_asio/Tap.h>
#include <asio/io_context.hpp>

#include "ClientConnection.h"

namespace vesk::hostkit {

/**
 * The clients that tap a host's channel. What one of them does not take at once is missed by it
 * alone: its connection never holds much, and nobody waits for it.
 *
 * Threads: the one that runs the io_context.
 */
class Tappers {
public:
    /** @param tap null where the host has none. */
    Tappers(asio::io_context& io, Tap* tap) : mIo(io), mTap(tap) {}
    ~Tappers();
    Tappers(Tappers const&) = delete;
    Tappers& operator=(Tappers const&) = delete;

    /** Why this client may not tap; empty where it may. */
    std::string whyNot(ClientConnection& client) const;

    void add(std::shared_ptr<ClientConnection> const& client);

    /** Sends what there is, and then the answer to the end of a TAP. */
    void remove(ClientConnection& client);

    /** The client is gone. */
    void left(uint32_t id);

private:
    struct Tapper {
        std::shared_ptr<ClientConnection> client;
        uint64_t missed = 0;   // frames
        uint64_t skipped = 0;  // bytes of no frame that it has not been told of
    };

    void pass();
    static void passTo(Tapper& tapper, Tap::Batch const& batch);
    static void passSkipped(Tapper& tapper, uint64_t micros);

    asio::io_context& mIo;
    Tap* const mTap;
    std::map<uint32_t, Tapper> mTappers;
};

}  // namespace vesk::hostkit
