#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace vesk::simulation {

/** Every decision of a run comes from here; the same seed decides the same on every machine. */
class Random {
public:
    explicit Random(uint64_t seed) : mEngine(seed) {}

    /** 0 .. limit - 1. The standard's distributions differ between libraries; this does not. */
    size_t below(size_t limit) { return static_cast<size_t>(mEngine() % limit); }

    size_t between(size_t low, size_t high) { return low + below(high - low + 1); }

    bool chance(unsigned perMille) { return below(1000) < perMille; }

private:
    std::mt19937_64 mEngine;
};

}  // namespace vesk::simulation
