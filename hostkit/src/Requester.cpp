#include <vesk/hostkit/Requester.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>

#include <quillex/SystemClock.h>
#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk::hostkit {

using Guard = std::lock_guard<std::mutex>;
using quillex::SystemClock;
using FramePtr = std::shared_ptr<VeskFrame>;

namespace {

std::shared_ptr<VeskFrame> makeRequest(Requester::Address const& address, uint16_t msgId,
                                       Requester::Bytes payload) {
    auto frame = VeskFrame::obtainFrame(true);
    frame->topicId = address.topicId;
    frame->businessId = address.businessId;
    frame->msgType = REQUEST;
    frame->reply = address.sessionId;
    frame->msgId = msgId;
    frame->data = std::move(payload);
    return frame;
}

bool answers(VeskFrame const& reply, Requester::Address const& address) {
    return reply.topicId == address.topicId && reply.businessId == address.businessId &&
           reply.reply == address.sessionId;
}

uint64_t deadlineAfter(uint64_t timeout) {
    uint64_t const now = SystemClock::uptimeMillis();
    return now + std::min(timeout, UINT64_MAX - now);
}

// How many sends of ask() this thread is in. A frame that comes from inside one of them was looped
// back within this process, and says nothing about who reads the channel.
thread_local int gSending = 0;

/** What call() waits for; shared with the request's callback. */
class Arrival {
public:
    void put(Requester::Result result) VESK_EXCLUDES(mMutex) {
        Guard const guard(mMutex);
        mResult = std::move(result);
        mCond.notify_one();
    }

    /** Waits until the result is there or, by the library's clock, the deadline is. */
    bool waitUntil(uint64_t deadline) VESK_EXCLUDES(mMutex) {
        Guard const guard(mMutex);
        std::unique_lock<std::mutex> lock(mMutex, std::adopt_lock);  // what the condition wants
        uint64_t now = 0;
        while (!mResult && (now = SystemClock::uptimeMillis()) < deadline) {
            mCond.wait_for(lock, std::chrono::milliseconds(std::min(deadline - now, MAX_WAIT_MS)));
        }
        lock.release();  // the guard unlocks
        return mResult.has_value();
    }

    Requester::Result take() VESK_EXCLUDES(mMutex) {
        waitUntil(UINT64_MAX);
        Guard const guard(mMutex);
        return std::move(*mResult);
    }

private:
    static constexpr uint64_t MAX_WAIT_MS = 3600000;  // more would overflow the system's clocks

    std::mutex mMutex;
    std::condition_variable mCond;
    std::optional<Requester::Result> mResult VESK_GUARDED_BY(mMutex);
};

}  // namespace

struct Requester::State {
    struct Request {
        Address address;
        Ticket ticket;
        uint64_t end = 0;  // ms of uptime
        Done done;
    };
    using Requests = std::vector<Request>;

    /** Requests by their message ids, and by their ends. */
    class Table {
    public:
        bool empty() const { return mById.empty(); }
        size_t size() const { return mById.size(); }
        uint64_t firstEnd() const { return mByEnd.begin()->first; }
        uint16_t first() const { return mByEnd.begin()->second; }
        bool hasDue(uint64_t now) const { return !empty() && firstEnd() <= now; }
        /** Null where there is none. */
        Request const* find(uint16_t msgId) const;
        void add(Request request);
        Request take(uint16_t msgId);

    private:
        std::unordered_map<uint16_t, Request> mById;
        std::set<std::pair<uint64_t, uint16_t>> mByEnd;
    };

    State(MessageIds& messageIds, Send sender) : ids(messageIds), send(std::move(sender)) {}

    bool add(Request request) VESK_EXCLUDES(mutex);
    /** Takes out the request that this frame answers; one that was given up has no callback. */
    std::optional<Request> takeAnswered(VeskFrame const& reply) VESK_EXCLUDES(mutex);
    /** Gives up the request with this ticket; nothing where it has ended. */
    Requests takeOne(Ticket const& ticket) VESK_EXCLUDES(mutex);
    /** Gives up what is due by then, and with `last` lets nothing in any more. */
    Requests takeDue(uint64_t now, bool last) VESK_EXCLUDES(mutex);
    Request giveUp(uint16_t msgId) VESK_REQUIRES(mutex);
    void forgetLongGivenUp(uint64_t now) VESK_REQUIRES(mutex);
    void end(Requests const& ended, Outcome outcome) VESK_EXCLUDES(mutex);

    MessageIds& ids;
    Send const send;
    std::atomic<std::thread::id> reader{};  // of the channel, as far as received() shows it
    mutable std::mutex mutex;
    Table outstanding VESK_GUARDED_BY(mutex);  // end: when it times out
    Table givenUp VESK_GUARDED_BY(mutex);      // end: until then its id is in use for no other
    uint64_t lateReplies VESK_GUARDED_BY(mutex) = 0;
    bool over VESK_GUARDED_BY(mutex) = false;
};

Requester::State::Request const* Requester::State::Table::find(uint16_t msgId) const {
    auto const found = mById.find(msgId);
    return found == mById.end() ? nullptr : &found->second;
}

void Requester::State::Table::add(Request request) {
    uint16_t const msgId = request.ticket.msgId;
    mByEnd.emplace(request.end, msgId);
    mById.emplace(msgId, std::move(request));
}

Requester::State::Request Requester::State::Table::take(uint16_t msgId) {
    auto const found = mById.find(msgId);
    Request request = std::move(found->second);
    mById.erase(found);
    mByEnd.erase({request.end, msgId});
    return request;
}

bool Requester::State::add(Request request) {
    Guard const guard(mutex);
    if (over) return false;
    // Left there only by a clock that a test has put back; an id is in one table at a time.
    if (givenUp.find(request.ticket.msgId)) givenUp.take(request.ticket.msgId);
    outstanding.add(std::move(request));
    return true;
}

std::optional<Requester::State::Request> Requester::State::takeAnswered(VeskFrame const& reply) {
    Guard const guard(mutex);
    Request const* request = outstanding.find(reply.msgId);
    if (request && answers(reply, request->address)) return outstanding.take(reply.msgId);
    // The id of one that was given up long ago may be another requester's by now, and so the reply.
    forgetLongGivenUp(SystemClock::uptimeMillis());
    request = givenUp.find(reply.msgId);
    if (!request || !answers(reply, request->address)) return std::nullopt;
    ++lateReplies;
    return givenUp.take(reply.msgId);
}

Requester::State::Requests Requester::State::takeOne(Ticket const& ticket) {
    Requests taken;
    Guard const guard(mutex);
    Request const* const request = outstanding.find(ticket.msgId);
    if (request && request->ticket.use == ticket.use) taken.push_back(giveUp(ticket.msgId));
    return taken;
}

Requester::State::Requests Requester::State::takeDue(uint64_t now, bool last) {
    Requests taken;
    Guard const guard(mutex);
    over = over || last;
    while (outstanding.hasDue(now)) {
        taken.push_back(giveUp(outstanding.first()));
    }
    return taken;
}

Requester::State::Request Requester::State::giveUp(uint16_t msgId) {
    uint64_t const now = SystemClock::uptimeMillis();
    forgetLongGivenUp(now);
    Request request = outstanding.take(msgId);
    givenUp.add({request.address, request.ticket, now + MessageIds::LATE_REPLY_MS, nullptr});
    return request;
}

void Requester::State::forgetLongGivenUp(uint64_t now) {
    while (givenUp.hasDue(now)) {
        givenUp.take(givenUp.first());
    }
}

/** All ids first: a callback may be the last to need what owns them, and this object. */
void Requester::State::end(Requests const& ended, Outcome outcome) {
    for (Request const& request : ended) {
        ids.givenUp(request.ticket);
    }
    for (Request const& request : ended) {
        if (request.done) request.done(outcome, nullptr);
    }
}

Requester::Requester(MessageIds& ids, Send send)
    : mState(std::make_shared<State>(ids, std::move(send))) {}

void Requester::sendToPeer(FramePtr const& request) {
    auto const session = Vesk::getInstance()->getSessionManager()->getSession(request->reply);
    if (session) session->send(false, request, IMMEDIATE_PRIORITY);
}

Requester::~Requester() {
    mState->end(mState->takeDue(UINT64_MAX, true), Outcome::CANCELLED);
}

// Everywhere below: a callback may let this object go, and the state is still needed then.

std::optional<Requester::Ticket> Requester::ask(Address const& address, Bytes payload,
                                                uint64_t timeout, Done done) {
    std::shared_ptr<State> const state = mState;
    if (payload.size() > MAX_PAYLOAD_SIZE) return std::nullopt;
    std::optional<Ticket> const ticket = state->ids.take();
    if (!ticket) return std::nullopt;
    FramePtr const frame = makeRequest(address, ticket->msgId, std::move(payload));
    // Before it is sent: the reply may come from inside the call.
    if (!state->add({address, *ticket, deadlineAfter(timeout), std::move(done)})) {
        state->ids.givenUp(*ticket);
        return std::nullopt;
    }
    ++gSending;
    state->send(frame);
    --gSending;
    return ticket;
}

Requester::Result Requester::call(Address const& address, Bytes payload, uint64_t timeout) {
    std::shared_ptr<State> const state = mState;
    if (state->reader.load() == std::this_thread::get_id()) return {Outcome::WRONG_THREAD, nullptr};
    auto const arrival = std::make_shared<Arrival>();
    uint64_t const deadline = deadlineAfter(timeout);
    std::optional<Ticket> const ticket = ask(address, std::move(payload), timeout,
                                             [arrival](Outcome outcome, FramePtr const& reply) {
                                                 arrival->put({outcome, reply});
                                             });
    if (!ticket) return {Outcome::NOT_SENT, nullptr};
    // Where somebody else has just taken the request out, its callback is about to be called.
    if (!arrival->waitUntil(deadline)) state->end(state->takeOne(*ticket), Outcome::TIMED_OUT);
    return arrival->take();
}

bool Requester::cancel(Ticket const& request) {
    std::shared_ptr<State> const state = mState;
    State::Requests const taken = state->takeOne(request);
    state->end(taken, Outcome::CANCELLED);
    return !taken.empty();
}

bool Requester::received(FramePtr const& frame, bool local) {
    std::shared_ptr<State> const state = mState;
    if (!local && gSending == 0) state->reader = std::this_thread::get_id();
    if (!frame || frame->msgType != REPLY) return false;
    std::optional<State::Request> const request = state->takeAnswered(*frame);
    if (!request) return false;
    state->ids.answered(request->ticket);
    if (request->done) request->done(Outcome::REPLIED, frame);
    return true;
}

std::optional<uint64_t> Requester::nextTimeout() const {
    uint64_t const now = SystemClock::uptimeMillis();
    Guard const guard(mState->mutex);
    if (mState->outstanding.empty()) return std::nullopt;
    uint64_t const first = mState->outstanding.firstEnd();
    return first > now ? first - now : 0;
}

void Requester::expire() {
    std::shared_ptr<State> const state = mState;
    state->end(state->takeDue(SystemClock::uptimeMillis(), false), Outcome::TIMED_OUT);
}

size_t Requester::outstanding() const {
    Guard const guard(mState->mutex);
    return mState->outstanding.size();
}

uint64_t Requester::lateReplies() const {
    Guard const guard(mState->mutex);
    return mState->lateReplies;
}

}  // namespace vesk::hostkit
