#include "Backlog.h"

#include <utility>

namespace vesk::hostkit {

namespace {
// Messages that are shorter share a block, and with it a write.
constexpr size_t BLOCK_SIZE = size_t{16} * 1024;

// A block never grows beyond its capacity, because its bytes may be under way.
bool fits(client::Bytes const& block, client::Bytes const& message) {
    return block.capacity() - block.size() >= message.size();
}

}  // namespace

void Backlog::append(client::Bytes message) {
    if (!mBlocks.empty() && fits(mBlocks.back().bytes, message)) {
        client::Bytes& last = mBlocks.back().bytes;
        last.insert(last.end(), message.begin(), message.end());
        return;
    }
    if (!mBlocks.empty() && message.size() < BLOCK_SIZE / 2) message.reserve(BLOCK_SIZE);
    mBlocks.push_back({std::move(message), Clock::now()});
    mBytes += cost(mBlocks.back());
    mTotal += cost(mBlocks.back());
}

void Backlog::clear() {
    mTotal -= mBytes;
    mBytes = 0;
    mWritten = 0;
    mBlocks.clear();
}

asio::const_buffer Backlog::next() const {
    return asio::buffer(mBlocks.front().bytes) + mWritten;
}

void Backlog::written(size_t size) {
    mWritten += size;
    if (mWritten < mBlocks.front().bytes.size()) return;
    mBytes -= cost(mBlocks.front());
    mTotal -= cost(mBlocks.front());
    mBlocks.pop_front();
    mWritten = 0;
}

}  // namespace vesk::hostkit
