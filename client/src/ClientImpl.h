#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <vesk/VeskThreadAnnotations.h>
#include <vesk/client/Client.h>

#include "BackOff.h"
#include "Calls.h"
#include "Connection.h"

namespace vesk::client {

/**
 * A client's thread and what it shares with those who call the client.
 *
 * The thread holds a reference to this object, so it may outlive its Client. What mMutex does not
 * guard is the thread's own from start() on.
 */
class Client::Impl : public std::enable_shared_from_this<Impl> {
public:
    enum class Role : uint8_t { NONE, CONSUMER = 1, PROVIDER = 2 };  // as JOIN has them
    using QueryDone = std::function<void(std::optional<Counters> const& counters)>;
    /** Gets the body of the answer, or null when there will be none. */
    using Answered = std::function<void(Bytes const* body)>;

    struct Tapper {
        std::function<void(TappedMessage const& tapped)> onFrame;
        std::function<void(SkippedMessage const& skipped)> onSkipped;
    };

    Impl(std::string path, Options options);

    void start();
    /** Returns when no callback runs any more, or at once where it is called in one. */
    void stop();

    uint16_t join(Role role, BusinessName const& business, Handler handler);
    Sent call(Bytes const& payload, std::chrono::milliseconds timeout, Done& done);
    void watch(Watcher watcher);
    Counters query();
    void query(QueryDone done);
    std::string status(StatusFormat format);
    void status(StatusFormat format,
                std::function<void(std::optional<std::string> const& text)> done);
    void tap(Tapper tapper);
    uint64_t untap();
    void post(std::function<void()> task);
    bool connected() const;
    /** Sends a reply to a request that came through the connection with this number. */
    bool reply(uint64_t connection, uint16_t session, uint16_t msgId, Bytes const& payload);

private:
    class Request;
    using Clock = Calls::Clock;
    using Lock = std::lock_guard<std::mutex>;

    void run();
    void turn();
    void runTasks();
    bool receive();
    void dispatch(Message const& message);
    void joined(Message const& message);
    void refused(Message const& message);
    void replied(Message const& message);
    void requested(Message const& message);
    void changed(Message const& message);
    void answered(Message const& message);
    void tapped(Message const& message);
    void skipped(Message const& message);
    std::shared_ptr<Tapper const> tapper() const;
    void flush();
    void flushAfterWhile();
    void sleep();
    std::optional<Clock::time_point> nextTurn() const VESK_REQUIRES(mMutex);
    void expire();
    void abandonAll();
    void ask(Bytes const& question, Answered done);
    Bytes askAndWait(Bytes const& question);
    Done takeOverdue();
    Done takeAny();
    Answered takeQuestion();
    void endJoining(std::exception_ptr why) VESK_REQUIRES(mMutex);
    void lose(std::string const& reason);
    void askForNotices() VESK_REQUIRES(mMutex);
    void reconnect();
    void send(Bytes const& message) VESK_REQUIRES(mMutex);
    void wake() VESK_REQUIRES(mMutex);
    size_t backlog() const VESK_REQUIRES(mMutex) { return mWaiting.size() + mUnsent; }
    bool isFull() const VESK_REQUIRES(mMutex);
    void countUnanswered(size_t size);
    void discountUnanswered(size_t size);
    bool isUp() const VESK_REQUIRES(mMutex) { return mUp && (mRole == Role::NONE || mJoined); }
    void refuseToWait() const VESK_REQUIRES(mMutex);

    std::string const mPath;
    Options const mOptions;
    std::thread mThread;

    Connection mConnection;
    MessageReader mReader;
    Bytes mLeaving;        // the thread writes these
    size_t mSent = 0;      // of mLeaving
    bool mHungUp = false;  // the host has closed its end
    Clock::time_point mLastFlush = Clock::now();
    Clock::time_point mRetry{};
    BackOff mBackOff;

    mutable std::mutex mMutex;
    Descriptor mWake;  // an eventfd
    std::thread::id mThreadId VESK_GUARDED_BY(mMutex);
    std::atomic<bool> mStopping{false};  // set with mMutex held
    bool mAsleep VESK_GUARDED_BY(mMutex) = false;
    bool mUp VESK_GUARDED_BY(mMutex) = true;       // connected
    bool mJoined VESK_GUARDED_BY(mMutex) = false;  // on this connection
    uint16_t mSession VESK_GUARDED_BY(mMutex) = 0;
    std::string mWhyLost VESK_GUARDED_BY(mMutex);
    uint64_t mConnections VESK_GUARDED_BY(mMutex) = 1;
    Bytes mWaiting VESK_GUARDED_BY(mMutex);
    size_t mUnsent VESK_GUARDED_BY(mMutex) = 0;      // of mLeaving
    size_t mUnanswered VESK_GUARDED_BY(mMutex) = 0;  // bytes of requests
    Role mRole VESK_GUARDED_BY(mMutex) = Role::NONE;
    BusinessName mBusiness VESK_GUARDED_BY(mMutex);
    std::shared_ptr<Handler const> mHandler VESK_GUARDED_BY(mMutex);
    std::optional<std::promise<uint16_t>> mJoining VESK_GUARDED_BY(mMutex);
    std::shared_ptr<Watcher const> mWatcher VESK_GUARDED_BY(mMutex);
    std::shared_ptr<Tapper const> mTapper VESK_GUARDED_BY(mMutex);
    bool mTaps VESK_GUARDED_BY(mMutex) = false;  // until untap()
    std::deque<std::function<void()>> mTasks VESK_GUARDED_BY(mMutex);
    std::deque<Answered> mQuestions VESK_GUARDED_BY(mMutex);  // the host answers in their order
    Calls mCalls VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::client
