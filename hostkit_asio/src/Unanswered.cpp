#include "Unanswered.h"

#include <algorithm>

namespace vesk::hostkit {

namespace {
// What a message costs beside its payload: its head, and its place here.
constexpr size_t OVERHEAD = 64;
}  // namespace

void Unanswered::asked(uint16_t msgId, size_t size) {
    auto const cost = static_cast<uint32_t>(size + OVERHEAD);
    mRequests.push_back({Clock::now(), msgId, cost});
    mTotal += cost;
}

void Unanswered::answered(uint16_t msgId, size_t size) {
    // One long reply is remembered for some time, so that a mixture counts as the longest in it.
    mExpected = std::max(size + OVERHEAD, mExpected - mExpected / 8);
    mCredit += mExpected;
    auto const found = std::find_if(mRequests.begin(), mRequests.end(),
                                    [&](Request const& request) { return request.msgId == msgId; });
    if (found == mRequests.end()) return;
    for (auto count = found - mRequests.begin() + 1; count > 0; --count)
        forgetFirst();
}

void Unanswered::expire() {
    auto const now = Clock::now();
    while (!mRequests.empty() && expiry() <= now) {
        forgetFirst();
        mExpected = 0;
    }
}

void Unanswered::clear() {
    while (!mRequests.empty())
        forgetFirst();
}

void Unanswered::forgetFirst() {
    mTotal -= mRequests.front().cost;
    mRequests.pop_front();
}

}  // namespace vesk::hostkit
