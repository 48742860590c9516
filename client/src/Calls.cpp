#include "Calls.h"

namespace vesk::client {

std::optional<uint16_t> Calls::add(Clock::time_point deadline, Done& done) {
    for (size_t tried = 0; tried < mIds.size(); ++tried) {
        uint16_t const msgId = mNext++;
        if (mIds[msgId] != State::FREE) continue;
        mIds[msgId] = State::OUTSTANDING;
        mDeadlines.emplace(deadline, msgId);
        mOutstanding[msgId] = Call{deadline, std::move(done)};
        return msgId;
    }
    return std::nullopt;
}

Calls::Done Calls::take(uint16_t msgId) {
    State const state = std::exchange(mIds[msgId], State::FREE);
    if (state != State::OUTSTANDING) return nullptr;
    auto const call = mOutstanding.extract(msgId);
    mDeadlines.erase({call.mapped().deadline, msgId});
    return std::move(call.mapped().done);
}

Calls::Done Calls::expire(Clock::time_point now) {
    if (mDeadlines.empty() || mDeadlines.begin()->first > now) return nullptr;
    uint16_t const msgId = mDeadlines.begin()->second;
    Done overdue = take(msgId);
    mIds[msgId] = State::GIVEN_UP;
    return overdue;
}

Calls::Done Calls::abandon() {
    if (!mDeadlines.empty()) return take(mDeadlines.begin()->second);
    mIds.fill(State::FREE);
    return nullptr;
}

std::optional<Calls::Clock::time_point> Calls::nextDeadline() const {
    if (mDeadlines.empty()) return std::nullopt;
    return mDeadlines.begin()->first;
}

}  // namespace vesk::client
