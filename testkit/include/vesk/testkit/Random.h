#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

namespace vesk::testkit {

/**
 * Every decision of a run comes from here: from a seed, the same on every machine, or from bytes
 * that somebody else has chosen.
 */
class Random {
public:
    explicit Random(uint64_t seed) : mEngine(seed) {}
    explicit Random(std::vector<uint8_t> script) : mScript(std::move(script)), mScripted(true) {}

    /**
     * 0 .. limit - 1. The standard's distributions differ between libraries; this does not.
     *
     * REQUIRES: limit is at least 1.
     */
    size_t below(size_t limit) {
        return static_cast<size_t>((mScripted ? fromScript(limit) : mEngine()) % limit);
    }

    /** low .. high, both included. */
    size_t between(size_t low, size_t high) { return low + below(high - low + 1); }

    bool chance(unsigned perMille) { return below(1000) < perMille; }

    /** Whether the script has been used up; it goes on with zeros then. */
    bool exhausted() const { return mScripted && mNext >= mScript.size(); }

private:
    uint64_t fromScript(size_t limit) {
        uint64_t value = 0;
        for (size_t range = limit - 1; range > 0; range /= 256) {  // a byte for each of its bytes
            value = value * 256 + (exhausted() ? 0 : mScript[mNext++]);
        }
        return value;
    }

    std::mt19937_64 mEngine;
    std::vector<uint8_t> mScript;
    size_t mNext = 0;
    bool mScripted = false;
};

}  // namespace vesk::testkit
