#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vesk::tool {

/**
 * How often each latency occurred, in microseconds, however many there are: 31 KiB.
 *
 * Precision: below 256 us each value is told from the next. Beyond, those that share their upper
 * 8 bits are one, so that a percentile is never too low, and too high by less than 1/128.
 */
class LatencyHistogram {
public:
    void add(uint64_t micros) {
        ++mCounts[index(micros < MAX ? micros : MAX)];
        ++mTotal;
    }

    /** The least value that `percent` of the latencies do not exceed; 0 where there are none. */
    uint64_t percentile(unsigned percent) const {
        uint64_t const wanted = (mTotal * percent + 99) / 100;
        uint64_t seen = 0;
        for (size_t i = 0; i < mCounts.size(); ++i) {
            seen += mCounts[i];
            if (seen > 0 && seen >= wanted) return last(i);
        }
        return 0;
    }

private:
    static constexpr unsigned BITS = 8;
    static constexpr size_t HALF = size_t{1} << (BITS - 1);
    static constexpr unsigned MAX_SHIFT = 37 - BITS;
    static constexpr uint64_t MAX = (uint64_t{1} << (BITS + MAX_SHIFT)) - 1;  // 38 hours

    // Of each octave but the first two there is the upper half: HALF buckets.
    static size_t index(uint64_t micros) {
        unsigned shift = 0;
        while (micros >> shift >= 2 * HALF)
            ++shift;
        return shift * HALF + static_cast<size_t>(micros >> shift);
    }

    static uint64_t last(size_t index) {
        size_t const shift = index < 2 * HALF ? 0 : index / HALF - 1;
        return ((uint64_t{index} - shift * HALF + 1) << shift) - 1;
    }

    std::array<uint64_t, (MAX_SHIFT + 2) * HALF> mCounts{};
    uint64_t mTotal = 0;
};

}  // namespace vesk::tool
