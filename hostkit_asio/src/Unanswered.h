#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

#include <vesk/VeskProtocol.h>
#include <vesk/hostkit_asio/FlowLimits.h>

namespace vesk::hostkit {

/**
 * The requests of one consumer that have no reply yet: what they cost the business's provider, and
 * what their replies may come to cost the host.
 *
 * A request counts until a reply to it comes, or one to a later request, because a provider takes
 * them in their order; at most for `patience`, and only for `shortPatience` where the last one that
 * ended has had no reply: a business may be one that does not answer. A reply is expected to be as
 * long as those that came before. A new consumer begins with a few, and may have more outstanding
 * with each reply.
 */
class Unanswered {
public:
    using Clock = std::chrono::steady_clock;

    /**
     * Both must outlive this object.
     *
     * @param total  of the business's consumers.
     * @param limits how long a request counts.
     */
    Unanswered(size_t& total, FlowLimits const& limits) : mTotal(total), mLimits(limits) {}
    ~Unanswered() { clear(); }
    Unanswered(Unanswered const&) = delete;
    Unanswered& operator=(Unanswered const&) = delete;

    void asked(uint16_t msgId, size_t size);
    void answered(uint16_t msgId, size_t size);
    void expire();
    void clear();

    bool empty() const { return mRequests.empty(); }

    /** When the first of them ends without a reply. REQUIRES: there is one. */
    Clock::time_point expiry() const { return mRequests.front().asked + patience(); }

    /** Whether the replies may come to more than `limit`, or than this consumer may ask for yet,
     * when it makes one more request. */
    bool isFull(size_t limit) const {
        return !empty() && (mRequests.size() + 1) * mExpected > std::min(limit, mCredit);
    }

private:
    static constexpr size_t FIRST_CREDIT = 2 * MAX_PAYLOAD_SIZE;

    struct Request {
        Clock::time_point asked;
        uint16_t msgId;
        uint32_t cost;
    };

    std::chrono::milliseconds patience() const {
        return mExpected == 0 ? mLimits.shortPatience : mLimits.patience;
    }
    void forgetFirst();

    std::deque<Request> mRequests;
    size_t& mTotal;
    FlowLimits const& mLimits;
    size_t mExpected = MAX_PAYLOAD_SIZE;  // of a reply; 0 where none is
    size_t mCredit = FIRST_CREDIT;
};

}  // namespace vesk::hostkit
