#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>
#include <vesk/hostkit/MessageIds.h>

namespace vesk::hostkit {

/**
 * Asks providers and says what came of it: the reply, or that none came in time.
 *
 * Each request has an id of its own, so a reply belongs to one request whatever was asked before
 * it; the reply to a request that was given up is known, counted and dropped, for as long as
 * MessageIds keeps its id.
 *
 * Order of calls: the host hands every frame that VeskCallback::receive() brings to received(), and
 * its loop sleeps no longer than nextTimeout() and then calls expire(). A request of another thread
 * may shorten that time: where nothing else wakes the loop, that thread does.
 *
 * Threads:   every operation may be called from any thread and from inside a callback.
 * Callbacks: a request's callback is called exactly once, by received(), expire(), cancel() or the
 *            destructor, on the thread that called these, or by a `send` that brings the reply
 *            before it returns. No lock is held then. A callback may destroy this object, and the
 *            ids too: nothing of either is needed after it.
 * Ownership: the destructor ends what is outstanding with CANCELLED, also a call() that blocks, and
 *            waits for nothing; a callback may run it. Callbacks of other threads may still be
 *            under way when it returns.
 * Times:     milliseconds of uptime, from quillex::SystemClock. A call() that waits does not notice
 *            that a test moves this clock; expire() then ends it.
 */
class VESK_EXPORT Requester {
public:
    using Bytes = std::vector<uint8_t>;
    using Ticket = MessageIds::Ticket;

    /** What is asked, and the consumer session that asks: the reply comes back to it. */
    struct Address {
        uint8_t topicId;
        uint8_t businessId;
        uint16_t sessionId;
    };

    enum class Outcome {
        REPLIED,
        TIMED_OUT,
        CANCELLED,
        NOT_SENT,     // call() alone: no message id is free, or the payload is too long
        WRONG_THREAD  // call() alone: this thread is the one that would have to bring the reply
    };

    /** `reply` is null unless the outcome is REPLIED. */
    using Done = std::function<void(Outcome outcome, std::shared_ptr<VeskFrame> const& reply)>;

    struct Result {
        Outcome outcome;
        std::shared_ptr<VeskFrame> reply;  // null unless the outcome is REPLIED
    };

    /** Sends a request. Called on the thread that asks. */
    using Send = std::function<void(std::shared_ptr<VeskFrame> const& request)>;

    /**
     * Sends a request to the peer, through the consumer session that its reply field names; one
     * that is gone sends nothing.
     */
    static void sendToPeer(std::shared_ptr<VeskFrame> const& request);

    /** @param ids must outlive the requester; several share one. */
    explicit Requester(MessageIds& ids = MessageIds::ofProcess(), Send send = &sendToPeer);
    ~Requester();
    Requester(Requester const&) = delete;
    Requester& operator=(Requester const&) = delete;

    /**
     * Sends a request. Whether there is room for it is for SendGate to say before: one that the
     * library drops ends like one that nobody answers.
     *
     * @param timeout ms from now until the request is given up.
     * @param done    may be called before this returns. Never called when nothing is returned.
     * @return the request, for cancel(); nothing, and nothing is sent, when no message id is free
     *         or the payload is longer than 65,535 bytes.
     */
    std::optional<Ticket> ask(Address const& address, Bytes payload, uint64_t timeout, Done done);

    /**
     * Sends a request and waits for what comes of it. Keeps its time by itself: nobody needs to
     * call expire() for it.
     *
     * The thread that reads the channel is refused at once with WRONG_THREAD: it would wait for
     * itself. It is the one that last called received() with a frame that was not local, or with
     * null, as it may do before the first frame has come. Nor may the library's looper call this,
     * which is to send the request.
     */
    Result call(Address const& address, Bytes payload, uint64_t timeout);

    /** Ends a request with CANCELLED; false where it has ended already. */
    bool cancel(Ticket const& request);

    /**
     * Takes a frame that the library has delivered.
     *
     * @param local as VeskCallback::receive() says it. A local frame comes on the thread that sent
     *              it, which therefore need not be the one that reads the channel; so does a frame
     *              that comes from inside a `send` of this object, whatever is said of it here.
     * @return whether it is the reply, in time or late, to a request of this object; any other
     *         frame is left to the caller.
     */
    bool received(std::shared_ptr<VeskFrame> const& frame, bool local = false);

    /**
     * Ms until a request has to be given up, 0 where one is overdue; nothing: none is outstanding.
     */
    std::optional<uint64_t> nextTimeout() const;

    /**
     * Gives up, with TIMED_OUT, the requests whose time is over, the one due first before others.
     */
    void expire();

    /** Requests whose callback is still to be called. */
    size_t outstanding() const;

    /** Replies that came after their request was given up, since construction. */
    uint64_t lateReplies() const;

private:
    struct State;

    std::shared_ptr<State> const mState;  // shared with calls that are under way
};

}  // namespace vesk::hostkit
