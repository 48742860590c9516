#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include "UnixListener.h"

namespace vesk::e2e {

/** One end of a wire: whatever a host holds the other side of. */
using WireEnd = std::shared_ptr<asio::posix::stream_descriptor>;

/** Carries bytes between two hosts, and whatever a test adds to them. */
class Wire {
public:
    Wire(WireEnd a, WireEnd b);

    /** Slips bytes into what the host at end `b` reads. REQUIRES: nothing else is under way. */
    void insertTowardsB(std::vector<uint8_t> const& bytes);

    /** Cuts it: both hosts see the end of their channel. */
    void cut();

private:
    struct Direction {
        WireEnd from;
        WireEnd to;
        std::array<char, size_t{64} * 1024> bytes{};
    };
    static void carry(std::shared_ptr<Direction> const& direction);

    WireEnd mA;
    WireEnd mB;
};

/** Listens where a host will connect to, and takes its connection for the end of a wire. */
class Socket {
public:
    Socket(asio::io_context& io, std::string const& path);

    bool connected() const { return mEnd != nullptr; }
    WireEnd const& end() const { return mEnd; }

private:
    tool::UnixListener mListener;
    WireEnd mEnd;
};

/** A pseudo-terminal: the host opens device(), the wire holds end(). */
class PseudoTerminal {
public:
    explicit PseudoTerminal(asio::io_context& io);

    std::string const& device() const { return mDevice; }
    WireEnd const& end() const { return mEnd; }

private:
    WireEnd mEnd;
    std::string mDevice;
    // Held open, so that the wire does not fail before the host has opened it.
    std::shared_ptr<asio::posix::stream_descriptor> mKeeper;
};

}  // namespace vesk::e2e
