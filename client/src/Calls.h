#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include <vesk/client/Client.h>

namespace vesk::client {

/**
 * The requests of a client that await their replies, and the ids that tell them apart.
 *
 * An id that was given up is not used again until its late reply has come, so that no late reply is
 * ever taken for a newer request's.
 *
 * Threads: one at a time.
 */
class Calls {
public:
    using Clock = std::chrono::steady_clock;
    using Done = Client::Done;

    /** @param first the id that is used first. */
    explicit Calls(uint16_t first) : mNext(first) {}

    /** An id for a request; nothing where all are in use. `done` is moved from only then. */
    std::optional<uint16_t> add(Clock::time_point deadline, Done& done);

    /** A reply has come: what awaits it; empty where nobody does, because it is late or foreign. */
    Done take(uint16_t msgId);

    /** Gives up a request that is overdue; empty where none is. */
    Done expire(Clock::time_point now);

    /** No reply can come any more, also no late one: takes any request; empty where none is left.
     */
    Done abandon();

    std::optional<Clock::time_point> nextDeadline() const;

private:
    enum class State : uint8_t { FREE, OUTSTANDING, GIVEN_UP };
    struct Call {
        Clock::time_point deadline;
        Done done;
    };

    std::array<State, size_t{UINT16_MAX} + 1> mIds{};
    std::unordered_map<uint16_t, Call> mOutstanding;
    std::set<std::pair<Clock::time_point, uint16_t>> mDeadlines;
    uint16_t mNext;
};

}  // namespace vesk::client
