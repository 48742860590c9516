#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

namespace vesk::client {

/** How long a client waits before it goes back to a host that is gone: longer each time. */
class BackOff {
public:
    using Milliseconds = std::chrono::milliseconds;

    static constexpr Milliseconds FIRST{100};
    static constexpr Milliseconds LAST{3200};

    /** The time to wait now. */
    Milliseconds next() { return std::exchange(mNext, std::min(mNext * 2, LAST)); }

    /** The host was there: the next time is the first again. */
    void reset() { mNext = FIRST; }

private:
    Milliseconds mNext = FIRST;
};

}  // namespace vesk::client
