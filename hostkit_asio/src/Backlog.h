#pragma once

#include <chrono>
#include <cstddef>
#include <deque>

#include <vesk/client/ClientProtocol.h>
#include <asio/buffer.hpp>

namespace vesk::hostkit {

/**
 * What waits to be written to one client. It is counted as the memory that it takes, here and in
 * the total of all clients.
 */
class Backlog {
public:
    using Clock = std::chrono::steady_clock;

    /** @param total of all clients; must outlive this object. */
    explicit Backlog(size_t& total) : mTotal(total) {}
    ~Backlog() { clear(); }
    Backlog(Backlog const&) = delete;
    Backlog& operator=(Backlog const&) = delete;

    void append(client::Bytes message);
    void clear();

    size_t bytes() const { return mBytes; }
    bool empty() const { return mBlocks.empty(); }

    /** What to write next. It stays where it is until written(). REQUIRES: it is not empty. */
    asio::const_buffer next() const;
    void written(size_t size);

    /** Since when the first byte has been waiting. REQUIRES: it is not empty. */
    Clock::time_point since() const { return mBlocks.front().since; }

private:
    struct Block {
        client::Bytes bytes;
        Clock::time_point since;
    };

    static size_t cost(Block const& block) { return block.bytes.capacity() + sizeof(Block); }

    std::deque<Block> mBlocks;
    size_t mWritten = 0;  // of the first block
    size_t mBytes = 0;
    size_t& mTotal;
};

}  // namespace vesk::hostkit
