#include "Load.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace peers {

namespace {

constexpr size_t LEAST_PAYLOAD = 8;  // the slot and a part of the sequence number

size_t conversationOf(uint8_t const* payload) {
    uint32_t sequence = 0;
    std::memcpy(&sequence, payload + 4, sizeof sequence);
    return sequence % Load::CONVERSATIONS;
}

[[noreturn]] void wrongReply() {
    std::fputs("a reply is not what was asked\n", stderr);
    std::_Exit(1);
}

}  // namespace

Load::Load(Options const& options, std::function<void()> onMeasuring)
    : mOptions(options), mOnMeasuring(std::move(onMeasuring)), mSlots(options.window) {
    for (size_t i = 0; i < mSlots.size(); ++i) {
        for (size_t at = 0; at < options.payload || at < LEAST_PAYLOAD; ++at)
            mSlots[i].payload.push_back(uint8_t(at * 31 + i * 7));
        mFree.push_back(uint32_t(i));
    }
    mStart = Clock::now();
}

Load::Request Load::next() {
    uint32_t const index = mFree.back();
    mFree.pop_back();
    Slot& slot = mSlots[index];
    auto const sequence = uint32_t(mRequests++);
    std::memcpy(slot.payload.data(), &index, sizeof index);
    std::memcpy(slot.payload.data() + 4, &sequence, sizeof sequence);
    slot.outstanding = true;
    slot.sent = Clock::now();
    return {sequence % CONVERSATIONS, slot.payload.data(), slot.payload.size()};
}

bool Load::replied(size_t conversation, void const* data, size_t size) {
    auto const now = Clock::now();
    uint32_t index = 0;
    if (size < LEAST_PAYLOAD) wrongReply();
    std::memcpy(&index, data, sizeof index);
    if (index >= mSlots.size()) wrongReply();
    Slot& slot = mSlots[index];
    bool const same = size == slot.payload.size() &&
                      std::memcmp(data, slot.payload.data(), size) == 0 &&
                      conversation == conversationOf(slot.payload.data());
    if (!slot.outstanding || !same) wrongReply();
    slot.outstanding = false;
    mFree.push_back(index);
    ++mReplies;
    if (mMeasuring) {
        ++mMeasured;
        auto const nanos = uint64_t((now - slot.sent).count());
        ++mLatencies[stepOf(nanos)];
        mLongest = std::max(mLongest, nanos);
    }
    watchTime(now);
    return !mStopping;
}

void Load::watchTime(Clock::time_point now) {
    std::chrono::duration<double> const passed = now - mStart;
    if (mStopping) return;
    if (!mMeasuring && (mOptions.requests ? mReplies >= mOptions.requests / 10
                                          : passed.count() >= mOptions.seconds / 10)) {
        mMeasuring = true;
        mOnMeasuring();
        mStart = Clock::now();
    } else if (mMeasuring && (mOptions.requests ? mReplies >= mOptions.requests
                                                : passed.count() >= mOptions.seconds)) {
        mMeasuring = false;
        mStopping = true;
        mEnd = now;
        mOnMeasuring();
    }
}

double Load::requestsPerSecond() const {
    std::chrono::duration<double> const passed = mEnd - mStart;
    return double(mMeasured) / passed.count();
}

// The first STEPS nanoseconds one by one, then STEPS steps for each doubling.
size_t Load::stepOf(uint64_t nanos) {
    if (nanos < STEPS) return nanos;
    auto const doublings = size_t(63 - __builtin_clzll(nanos / STEPS));
    size_t const step = (doublings + 1) * STEPS + ((nanos >> doublings) - STEPS);
    return step < STEPS * 40 ? step : STEPS * 40 - 1;
}

double Load::percentile(double percent) const {
    double const wanted = double(mMeasured) * percent / 100;
    double below = 0;
    for (size_t step = 0; step < mLatencies.size(); ++step) {
        below += mLatencies[step];
        if (below < wanted || below == 0) continue;
        if (step < STEPS) return double(step) / 1000;
        return double((step % STEPS + STEPS) << (step / STEPS - 1)) / 1000;
    }
    return 0;
}

}  // namespace peers
