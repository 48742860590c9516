#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include <vesk/VeskExport.h>
#include <vesk/VeskProtocol.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk::hostkit {

/**
 * The message ids of a process's requests: hands out each one to one request at a time.
 *
 * The library knows a frame that awaits acknowledgement by its msgId alone, whatever its topic, and
 * a reply is known by the msgId of its request. So an id is in use from take() until nothing can
 * come for it any more:
 * - after answered(), until the acknowledgement of the request cannot be awaited any more: the
 *   reply shows that the request has been sent, and that is over ACK_TIMEOUT_MS later;
 * - after givenUp(), until the late reply has come, which is told by answered(), or for
 *   LATE_REPLY_MS: a reply that takes longer than this must be expected to meet another request.
 *
 * The ids are 1 to 65535, used in turn, so that one rests as long as it can. When all are in use,
 * there is none: some 32,000 requests answered in a second, or a thousand given up in a second for
 * a whole minute, bring that about.
 *
 * Threads: every operation may be called from any thread.
 * Times:   milliseconds of uptime, from quillex::SystemClock.
 */
class VESK_EXPORT MessageIds {
public:
    static constexpr uint64_t LATE_REPLY_MS = 60000;

    /** One use of an id. The same id has another ticket each time. */
    struct Ticket {
        uint16_t msgId = 0;
        uint64_t use = 0;
    };

    /**
     * The one object for all requests of a process. It begins anywhere among the ids, so that a
     * process that was started again hardly asks with those that it used just before its end.
     */
    static MessageIds& ofProcess();

    /** @param first the id that is handed out first, not 0. */
    explicit MessageIds(uint16_t first = 1) : mNext(first) {}
    MessageIds(MessageIds const&) = delete;
    MessageIds& operator=(MessageIds const&) = delete;

    /** An id for one request; nothing while all are in use. */
    std::optional<Ticket> take() VESK_EXCLUDES(mMutex);

    /** The reply has come, in time or late. A ticket whose use is over already is ignored. */
    void answered(Ticket const& ticket) VESK_EXCLUDES(mMutex);

    /** Nobody waits for the reply any more. A ticket whose use is over already is ignored. */
    void givenUp(Ticket const& ticket) VESK_EXCLUDES(mMutex);

    /** How many ids are not in use. */
    size_t available() VESK_EXCLUDES(mMutex);

private:
    struct Use {
        uint64_t number = 0;
        uint64_t end = UINT64_MAX;  // ms of uptime; unknown while the reply is awaited
    };

    void endLater(Ticket const& ticket, uint64_t millis) VESK_EXCLUDES(mMutex);
    void endUses() VESK_REQUIRES(mMutex);

    std::mutex mMutex;
    std::unordered_map<uint16_t, Use> mUses VESK_GUARDED_BY(mMutex);
    std::set<std::pair<uint64_t, uint16_t>> mEnds VESK_GUARDED_BY(mMutex);  // those that are known
    std::deque<uint16_t> mFreed VESK_GUARDED_BY(mMutex);                    // longest free first
    size_t mNeverUsed VESK_GUARDED_BY(mMutex) = UINT16_MAX;
    uint16_t mNext VESK_GUARDED_BY(mMutex);  // of those that were never used
    uint64_t mLastUse VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk::hostkit
