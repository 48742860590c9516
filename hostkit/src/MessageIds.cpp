#include <vesk/hostkit/MessageIds.h>

#include <quillex/SystemClock.h>

namespace vesk::hostkit {

using Guard = std::lock_guard<std::mutex>;
using quillex::SystemClock;

MessageIds& MessageIds::ofProcess() {
    // Never destroyed: requesters in static objects may end after it would be.
    static auto* const ids =
            new MessageIds(static_cast<uint16_t>(1 + SystemClock::uptimeMillis() % UINT16_MAX));
    return *ids;
}

std::optional<MessageIds::Ticket> MessageIds::take() {
    Guard const guard(mMutex);
    endUses();
    Ticket ticket{mNext, ++mLastUse};
    if (mNeverUsed > 0) {
        --mNeverUsed;
        mNext = mNext == UINT16_MAX ? uint16_t{1} : static_cast<uint16_t>(mNext + 1);
    } else if (!mFreed.empty()) {
        ticket.msgId = mFreed.front();
        mFreed.pop_front();
    } else {
        return std::nullopt;
    }
    mUses[ticket.msgId].number = ticket.use;
    return ticket;
}

void MessageIds::answered(Ticket const& ticket) {
    endLater(ticket, ACK_TIMEOUT_MS);
}

void MessageIds::givenUp(Ticket const& ticket) {
    endLater(ticket, LATE_REPLY_MS);
}

size_t MessageIds::available() {
    Guard const guard(mMutex);
    endUses();
    return mNeverUsed + mFreed.size();
}

void MessageIds::endLater(Ticket const& ticket, uint64_t millis) {
    Guard const guard(mMutex);
    auto const found = mUses.find(ticket.msgId);
    if (found == mUses.end() || found->second.number != ticket.use) return;
    Use& use = found->second;
    mEnds.erase({use.end, ticket.msgId});
    use.end = SystemClock::uptimeMillis() + millis;
    mEnds.emplace(use.end, ticket.msgId);
}

void MessageIds::endUses() {
    uint64_t const now = SystemClock::uptimeMillis();
    while (!mEnds.empty() && mEnds.begin()->first <= now) {
        uint16_t const msgId = mEnds.begin()->second;
        mEnds.erase(mEnds.begin());
        mUses.erase(msgId);
        mFreed.push_back(msgId);
    }
}

}  // namespace vesk::hostkit
