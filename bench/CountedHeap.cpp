#include "CountedHeap.h"

#include <cstdlib>
#include <new>

std::atomic<size_t> CountedHeap::blocks{0};
std::atomic<size_t> CountedHeap::bytes{0};
std::atomic<size_t> CountedHeap::allocations{0};

namespace {
constexpr size_t HEAD = alignof(std::max_align_t);  // before each block stands its size
}

void* operator new(size_t size) {
    auto* const block = static_cast<char*>(std::malloc(size + HEAD));
    if (!block) throw std::bad_alloc();
    *new (block) size_t = size;
    ++CountedHeap::blocks;
    ++CountedHeap::allocations;
    CountedHeap::bytes += size;
    return block + HEAD;
}

void operator delete(void* memory) noexcept {
    if (!memory) return;
    void* const block = static_cast<char*>(memory) - HEAD;
    --CountedHeap::blocks;
    CountedHeap::bytes -= *static_cast<size_t*>(block);
    std::free(block);
}

void operator delete(void* memory, size_t) noexcept {
    operator delete(memory);
}
