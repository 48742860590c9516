#include "ClientImpl.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "ResponderTarget.h"

namespace vesk::client {

namespace {

using std::chrono::milliseconds;

// 34 years: the end of a longer time might not fit the seconds that 32 bits hold.
constexpr milliseconds LONGEST_TIME{int64_t{INT32_MAX / 2} * 1000};
// A host that does not accept at once is tried again later: meanwhile the thread has to see whether
// it is to end.
constexpr milliseconds RECONNECT_LIMIT{100};
// What waits behind a slow callback leaves at least this often.
constexpr milliseconds FLUSH_INTERVAL{1};

// What a request takes beside its payload while it is not answered.
constexpr size_t REQUEST_OVERHEAD = 64;

constexpr char const* NOT_UNDERSTOOD =
        "the host's messages are not understood; is it another version of vesk?";
constexpr char const* NO_ANSWER = "the host does not answer; see whether it is stopped";

std::string textOf(Message const& message) {
    return {message.body.begin(), message.body.end()};
}

Client::Options limited(Client::Options options) {
    options.limit = std::min(options.limit, LONGEST_TIME);
    return options;
}

template <typename Future>
auto await(Future future, milliseconds limit) {
    auto const status = future.wait_for(limit);
    if (status != std::future_status::ready) throw std::runtime_error(NO_ANSWER);
    return future.get();
}

}  // namespace

class Client::Impl::Request : public Responder::Target {
public:
    Request(std::shared_ptr<Impl> const& client, uint64_t connection, DataMessage const& data)
        : Target(data.session, data.msgId),
          mClient(client),
          mConnection(connection),
          mSize(REQUEST_OVERHEAD + data.payload.size()) {
        client->countUnanswered(mSize);
    }
    Request(Request const&) = delete;
    Request& operator=(Request const&) = delete;

    ~Request() override {
        if (auto const client = mClient.lock()) client->discountUnanswered(mSize);
    }

private:
    bool send(Bytes const& payload) override {
        auto const client = mClient.lock();
        return client && client->reply(mConnection, session(), msgId(), payload);
    }

    std::weak_ptr<Impl> const mClient;
    uint64_t const mConnection;
    size_t const mSize;
};

Client::Impl::Impl(std::string path, Options options)
    : mPath(std::move(path)),
      mOptions(limited(std::move(options))),
      mWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mCalls(static_cast<uint16_t>(std::random_device()())) {
    if (mWake.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    mConnection.open(mPath, mOptions.limit, mOptions.anyOwner);
    Lock const lock(mMutex);
    askForNotices();
}

// Before it joins, for that may be what it is told about.
void Client::Impl::askForNotices() {
    if (mOptions.onNotice) send(encodeMessage(MessageType::NOTIFY));
}

void Client::Impl::start() {
    mThread = std::thread([self = shared_from_this()] { self->run(); });
}

void Client::Impl::stop() {
    bool isThread;
    {
        Lock const lock(mMutex);
        mStopping = true;
        isThread = mThreadId == std::this_thread::get_id();
        mUp = false;
        ::eventfd_write(mWake.get(), 1);
    }
    if (isThread) {
        mThread.detach();
        abandonAll();
    } else {
        mThread.join();
    }
}

void Client::Impl::refuseToWait() const {
    if (mThreadId == std::this_thread::get_id()) {
        throw std::logic_error(
                "a callback of a client cannot wait for an answer that comes through its own "
                "thread; use the form that takes a callback, or another thread");
    }
}

uint16_t Client::Impl::join(Role role, BusinessName const& business, Handler handler) {
    std::future<uint16_t> session;
    {
        Lock const lock(mMutex);
        refuseToWait();
        if (mRole != Role::NONE) {
            throw std::logic_error("this client has joined already; make another one");
        }
        if (!mUp) throw std::runtime_error(mWhyLost);
        mRole = role;
        mBusiness = business;
        mHandler = std::make_shared<Handler const>(std::move(handler));
        session = mJoining.emplace().get_future();
        send(JoinMessage{static_cast<int>(role), business.topic, business.business}.encode());
    }
    return await(std::move(session), mOptions.limit);
}

Client::Sent Client::Impl::call(Bytes const& payload, milliseconds timeout, Done& done) {
    DataMessage::checkSize(payload.size());
    Lock const lock(mMutex);
    if (mRole != Role::CONSUMER) throw std::logic_error("join() a business before you call it");
    if (!isUp()) return Sent::NOT_CONNECTED;
    if (backlog() > mOptions.maxBacklog) return Sent::FULL;
    // An empty one would look as if no request were left.
    if (!done) done = [](Reply const&) {};
    auto const deadline = Clock::now() + std::clamp(timeout, milliseconds::zero(), LONGEST_TIME);
    std::optional<uint16_t> const msgId = mCalls.add(deadline, done);
    if (!msgId) return Sent::NO_ID;
    send(DataMessage::encode(MessageType::REQUEST, mSession, *msgId, payload));
    return Sent::YES;
}

bool Client::Impl::reply(uint64_t connection, uint16_t session, uint16_t msgId,
                         Bytes const& payload) {
    Lock const lock(mMutex);
    if (!mUp || connection != mConnections) return false;
    send(DataMessage::encode(MessageType::REPLY, session, msgId, payload));
    return true;
}

void Client::Impl::watch(Watcher watcher) {
    Lock const lock(mMutex);
    if (mWatcher) throw std::logic_error("this client watches already; make another one");
    mWatcher = std::make_shared<Watcher const>(std::move(watcher));
    if (mUp) send(encodeMessage(MessageType::WATCH));
}

Counters Client::Impl::query() {
    Bytes const body = askAndWait(encodeMessage(MessageType::QUERY));
    auto const counters = Counters::decode(body);
    if (!counters) throw std::runtime_error(NOT_UNDERSTOOD);
    return *counters;
}

void Client::Impl::query(QueryDone done) {
    ask(encodeMessage(MessageType::QUERY), [done = std::move(done)](Bytes const* body) {
        done(body ? Counters::decode(*body) : std::nullopt);
    });
}

std::string Client::Impl::status(StatusFormat format) {
    Bytes const body = askAndWait(StatusMessage{format}.encode());
    return {body.begin(), body.end()};
}

void Client::Impl::status(StatusFormat format,
                          std::function<void(std::optional<std::string> const& text)> done) {
    ask(StatusMessage{format}.encode(), [done = std::move(done)](Bytes const* body) {
        done(body ? std::optional<std::string>({body->begin(), body->end()}) : std::nullopt);
    });
}

void Client::Impl::tap(Tapper tapper) {
    Lock const lock(mMutex);
    if (mTapper) throw std::logic_error("this client taps already; make another one");
    mTapper = std::make_shared<Tapper const>(std::move(tapper));
    mTaps = true;
    if (mUp) send(TapMessage{true}.encode());
}

uint64_t Client::Impl::untap() {
    {
        Lock const lock(mMutex);
        refuseToWait();
        mTaps = false;  // also on a new connection
    }
    auto const tapped = TappedMessage::decode(askAndWait(TapMessage{false}.encode()));
    if (!tapped) throw std::runtime_error(NOT_UNDERSTOOD);
    return tapped->missed;
}

Bytes Client::Impl::askAndWait(Bytes const& question) {
    auto const promise = std::make_shared<std::promise<std::optional<Bytes>>>();
    {
        Lock const lock(mMutex);
        refuseToWait();
    }
    ask(question, [promise](Bytes const* body) {
        promise->set_value(body ? std::optional<Bytes>(*body) : std::nullopt);
    });
    std::optional<Bytes> body = await(promise->get_future(), mOptions.limit);
    Lock const lock(mMutex);
    if (!body) throw std::runtime_error(mWhyLost);
    return std::move(*body);
}

void Client::Impl::ask(Bytes const& question, Answered done) {
    {
        Lock const lock(mMutex);
        if (mUp) {
            mQuestions.push_back(std::move(done));
            send(question);
            return;
        }
    }
    done(nullptr);
}

void Client::Impl::post(std::function<void()> task) {
    Lock const lock(mMutex);
    mTasks.push_back(std::move(task));
    wake();
}

bool Client::Impl::connected() const {
    Lock const lock(mMutex);
    return isUp();
}

void Client::Impl::send(Bytes const& message) {
    mWaiting.insert(mWaiting.end(), message.begin(), message.end());
    wake();
}

// The thread looks by itself before it sleeps.
void Client::Impl::wake() {
    if (std::exchange(mAsleep, false)) ::eventfd_write(mWake.get(), 1);
}

void Client::Impl::run() {
    {
        Lock const lock(mMutex);
        mThreadId = std::this_thread::get_id();
    }
    while (!mStopping)
        turn();
    // What was said last is given the chance to leave.
    if (mConnection.isOpen()) flush();
    abandonAll();
}

void Client::Impl::turn() {
    runTasks();
    flush();
    // While there is something to read nobody asks the system whether there is.
    if (!mConnection.isOpen() || !receive()) sleep();
    expire();
    if (!mConnection.isOpen() && mOptions.reconnect && Clock::now() >= mRetry) reconnect();
}

void Client::Impl::runTasks() {
    std::deque<std::function<void()>> tasks;
    {
        Lock const lock(mMutex);
        tasks.swap(mTasks);
    }
    for (auto const& task : tasks) {
        if (!mStopping) task();
    }
}

/** Returns whether anything came. */
bool Client::Impl::receive() {
    {
        Lock const lock(mMutex);
        if (isFull() && !mHungUp) return false;
    }
    switch (mConnection.read(mReader)) {
        case Connection::Result::WOULD_BLOCK:
            return false;
        case Connection::Result::CLOSED:
            lose("the host is gone: " + mConnection.whyClosed());
            return true;
        case Connection::Result::DONE:
            break;
    }
    Message message;
    while (mConnection.isOpen() && !mStopping) {
        MessageReader::Result const result = mReader.next(message);
        if (result == MessageReader::Result::NEED_MORE) break;
        if (result != MessageReader::Result::MESSAGE) {
            lose(NOT_UNDERSTOOD);
            break;
        }
        dispatch(message);
        flushAfterWhile();
    }
    return true;
}

void Client::Impl::dispatch(Message const& message) {
    switch (message.type) {
        case MessageType::JOINED:
            return joined(message);
        case MessageType::REFUSED:
            return refused(message);
        case MessageType::REPLY:
            return replied(message);
        case MessageType::REQUEST:
            return requested(message);
        case MessageType::TOPIC:
        case MessageType::PROVIDER:
            return changed(message);
        case MessageType::COUNTERS:
        case MessageType::STATUS_TEXT:
            return answered(message);
        case MessageType::TAPPED:
            return tapped(message);
        case MessageType::SKIPPED:
            return skipped(message);
        case MessageType::NOTICE:
            if (mOptions.onNotice) mOptions.onNotice(textOf(message));
            return;
        default:
            return;  // a newer host's, which nobody here has asked for
    }
}

void Client::Impl::joined(Message const& message) {
    auto const joined = JoinedMessage::decode(message.body);
    if (!joined) return lose(NOT_UNDERSTOOD);
    bool isBack;
    {
        Lock const lock(mMutex);
        if (mRole == Role::NONE || mJoined) return;
        mJoined = true;
        mSession = joined->session;
        isBack = !mJoining;  // this client's own JOIN, not that of somebody who waits
        if (mJoining) std::exchange(mJoining, std::nullopt)->set_value(joined->session);
    }
    mBackOff.reset();
    if (isBack && mOptions.onBack) mOptions.onBack(joined->session);
}

void Client::Impl::refused(Message const& message) {
    std::string const text = textOf(message);
    {
        Lock const lock(mMutex);
        endJoining(std::make_exception_ptr(std::invalid_argument(text)));
    }
    lose("the host refused: " + text);
}

void Client::Impl::replied(Message const& message) {
    std::optional<DataMessage> reply = DataMessage::decode(message.body);
    if (!reply) return;
    Done done;
    {
        Lock const lock(mMutex);
        done = mCalls.take(reply->msgId);
    }
    if (done) done({Outcome::REPLIED, std::move(reply->payload)});
}

void Client::Impl::requested(Message const& message) {
    std::optional<DataMessage> request = DataMessage::decode(message.body);
    std::shared_ptr<Handler const> handler;
    uint64_t connection;
    {
        Lock const lock(mMutex);
        if (!request || !mJoined || mRole != Role::PROVIDER) return;
        handler = mHandler;
        connection = mConnections;
    }
    Responder const responder(std::make_shared<Request>(shared_from_this(), connection, *request));
    (*handler)(std::move(request->payload), responder);
}

void Client::Impl::changed(Message const& message) {
    auto change = ChangeMessage::decode(message.type, message.body);
    std::shared_ptr<Watcher const> watcher;
    {
        Lock const lock(mMutex);
        watcher = mWatcher;
    }
    if (!change || !watcher) return;
    if (message.type == MessageType::TOPIC) {
        if (watcher->onTopic) watcher->onTopic(change->added, change->topic);
    } else if (watcher->onProvider) {
        watcher->onProvider(change->added, {change->topic, change->business});
    }
}

void Client::Impl::answered(Message const& message) {
    if (Answered const done = takeQuestion()) done(&message.body);
}

void Client::Impl::tapped(Message const& message) {
    auto const tapped = TappedMessage::decode(message.body);
    if (!tapped) return lose(NOT_UNDERSTOOD);
    if (tapped->bytes.empty()) return answered(message);
    auto const to = tapper();
    if (to) to->onFrame(*tapped);
}

void Client::Impl::skipped(Message const& message) {
    auto const skipped = SkippedMessage::decode(message.body);
    if (!skipped) return lose(NOT_UNDERSTOOD);
    auto const to = tapper();
    if (to && to->onSkipped) to->onSkipped(*skipped);
}

std::shared_ptr<Client::Impl::Tapper const> Client::Impl::tapper() const {
    Lock const lock(mMutex);
    return mTapper;
}

// Whatever has gathered leaves in one write.
void Client::Impl::flush() {
    {
        Lock const lock(mMutex);
        if (mLeaving.empty()) mLeaving.swap(mWaiting);
    }
    if (mLeaving.empty() || !mConnection.isOpen()) return;
    mLastFlush = Clock::now();
    if (mConnection.write(mLeaving, mSent) == Connection::Result::CLOSED) {
        // Why the host does not take it any more, reading will tell.
        mLeaving.clear();
        mSent = 0;
    }
    Lock const lock(mMutex);
    mUnsent = mLeaving.size() - mSent;
}

void Client::Impl::flushAfterWhile() {
    if (Clock::now() - mLastFlush >= FLUSH_INTERVAL) flush();
}

void Client::Impl::sleep() {
    pollfd waited[2] = {{mWake.get(), POLLIN, 0}, {mConnection.descriptor(), 0, 0}};
    timespec time{};
    bool hasTime = false;
    {
        Lock const lock(mMutex);
        bool const canSend = mConnection.isOpen() && mLeaving.empty() && !mWaiting.empty();
        if (mStopping || canSend || !mTasks.empty()) return;
        waited[1].events =
                static_cast<short>((isFull() ? 0 : POLLIN) | (mLeaving.empty() ? 0 : POLLOUT));
        if (auto const next = nextTurn()) {
            auto const left = std::max(*next - Clock::now(), Clock::duration::zero());
            auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
            time.tv_sec = static_cast<time_t>(seconds.count());
            time.tv_nsec = static_cast<long>((left - seconds).count());
            hasTime = true;
        }
        mAsleep = true;
    }
    ::ppoll(waited, 2, hasTime ? &time : nullptr, nullptr);
    eventfd_t ignored;
    if (waited[0].revents != 0) ::eventfd_read(mWake.get(), &ignored);
    mHungUp = (waited[1].revents & (POLLHUP | POLLERR)) != 0;
    Lock const lock(mMutex);
    mAsleep = false;
}

// A provider that cannot get rid of its replies, or does not make them, takes no further request.
bool Client::Impl::isFull() const {
    return mRole == Role::PROVIDER &&
           (backlog() > mOptions.maxBacklog || mUnanswered > mOptions.maxUnanswered);
}

void Client::Impl::countUnanswered(size_t size) {
    Lock const lock(mMutex);
    mUnanswered += size;
}

void Client::Impl::discountUnanswered(size_t size) {
    Lock const lock(mMutex);
    bool const wasFull = isFull();
    mUnanswered -= size;
    if (wasFull && !isFull()) wake();
}

std::optional<Client::Impl::Clock::time_point> Client::Impl::nextTurn() const {
    if (mUp) return mCalls.nextDeadline();
    return mOptions.reconnect ? std::optional<Clock::time_point>(mRetry) : std::nullopt;
}

// One after the other: a callback may destroy the client, and then abandons the rest. What it holds
// goes before the lock is taken again, because it may be the client's last owner.
void Client::Impl::expire() {
    while (Done const done = takeOverdue())
        done({Outcome::TIMED_OUT, {}});
}

void Client::Impl::abandonAll() {
    while (Done const done = takeAny())
        done({Outcome::LOST, {}});
    while (Answered const done = takeQuestion())
        done(nullptr);
}

Client::Done Client::Impl::takeOverdue() {
    Lock const lock(mMutex);
    return mCalls.expire(Clock::now());
}

Client::Done Client::Impl::takeAny() {
    Lock const lock(mMutex);
    return mCalls.abandon();
}

Client::Impl::Answered Client::Impl::takeQuestion() {
    Lock const lock(mMutex);
    if (mQuestions.empty()) return nullptr;
    Answered done = std::move(mQuestions.front());
    mQuestions.pop_front();
    return done;
}

void Client::Impl::lose(std::string const& reason) {
    mConnection.close();
    mReader = {};
    mLeaving.clear();
    mSent = 0;
    mRetry = Clock::now() + mBackOff.next();
    bool wasUp;
    {
        Lock const lock(mMutex);
        wasUp = isUp();
        mUp = false;
        mJoined = false;
        mWhyLost = reason;
        mWaiting.clear();
        mUnsent = 0;
        endJoining(std::make_exception_ptr(
                std::runtime_error("the host went away before it answered (" + reason +
                                   "); see why it ended, start it again and repeat the command")));
    }
    abandonAll();
    if (wasUp && !mStopping && mOptions.onLost) mOptions.onLost(reason);
}

void Client::Impl::endJoining(std::exception_ptr why) {
    if (!mJoining) return;
    std::exchange(mJoining, std::nullopt)->set_exception(std::move(why));
    mRole = Role::NONE;
}

void Client::Impl::reconnect() {
    try {
        mConnection.open(mPath, std::min(mOptions.limit, RECONNECT_LIMIT), mOptions.anyOwner);
    } catch (std::runtime_error const&) {
        mConnection.close();
        mRetry = Clock::now() + mBackOff.next();
        return;
    }
    bool joins;
    {
        Lock const lock(mMutex);
        mUp = true;
        ++mConnections;
        askForNotices();
        joins = mRole != Role::NONE;
        if (joins) {
            send(JoinMessage{static_cast<int>(mRole), mBusiness.topic, mBusiness.business}
                         .encode());
        }
        if (mWatcher) send(encodeMessage(MessageType::WATCH));
        if (mTaps) send(TapMessage{true}.encode());
    }
    if (joins) return;  // joined() goes on
    mBackOff.reset();
    if (mOptions.onBack) mOptions.onBack(0);
}

}  // namespace vesk::client
