#pragma once

#include <atomic>
#include <cstddef>

/** What the program that links CountedHeap.cpp has taken from the heap by `new`. */
struct CountedHeap {
    static std::atomic<size_t> blocks;       // in use
    static std::atomic<size_t> bytes;        // in use
    static std::atomic<size_t> allocations;  // since the start
};
