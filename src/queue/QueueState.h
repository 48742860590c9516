#pragma once

#include <vesk/VeskQueue.h>

#include <quillex/SystemClock.h>
#include <sys/types.h>

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <vector>

#include "queue/QueueRules.h"
#include "queue/WaitAckList.h"

namespace vesk {

/**
 * What a VeskQueue consists of.
 *
 * Ownership: shared between the queue and its looper thread. The last owner of a queue may go on
 *            the looper itself, in the host's callback or with a frame that is let go of; the
 *            thread then still has the state that it works on.
 * Symbols:   hidden, unlike the queue's: calls within the library need no detour.
 * Locks:     mMutex is never held while the facade, a topic, the host or a destructor of the host's
 *            runs. What has to be let go of is collected and released after the lock.
 */
struct __attribute__((visibility("hidden"))) VeskQueue::State {
    using Packet = android::sp<QueuedPacket>;
    using Packets = std::vector<Packet>;

    /** What the queue has let go of under its lock; destroyed when that is no longer held. */
    struct Released {
        Packets packets;
        std::vector<std::shared_ptr<VeskFrame>> frames;  // of packets that are used again

        void clear() {
            packets.clear();
            frames.clear();
        }
    };

    /** One call that admits a packet; the last step of it comes without the lock. */
    struct Admission {
        Packets released;
        uint64_t pending = 0;  // before it
        bool isRefused = false;
        bool wakes = false;
    };

    /** One pass of the looper, and the one walk through the pending chain in it. */
    struct Pass {
        explicit Pass(Released& forReleased) : released(forReleased) {}

        uint64_t const start = quillex::SystemClock::uptimeMillis();
        unsigned long long wait = IDLE_WAIT_MS;  // ms from the start until something falls due
        uint64_t sendTime = 0;                   // of every packet that is sent in it
        int budget = 0;                          // packets that it may still send
        bool hasSent = false;
        bool hasSentData = false;  // something that is not an acknowledgement frame
        Released& released;        // before the next packet is picked

        void lowerWait(uint64_t other) { wait = std::min<unsigned long long>(wait, other); }
    };

    State();
    ~State();

    /**
     * Starts the looper; `self` owns this. Throws std::system_error where no thread can be made.
     */
    static void start(std::shared_ptr<State> const& self);
    void stop() VESK_EXCLUDES(mMutex);
    /** Lets the looper run out by itself where stop() could not wait for it. */
    void detach() VESK_EXCLUDES(mMutex);
    /** Whether this is another process than the looper's, a child made by fork(). */
    bool isForked() const;

    // Admission
    void enqueue(int priority, bool needRetransmission, std::shared_ptr<VeskFrame> frame)
            VESK_EXCLUDES(mMutex);
    void push(Packet packet) VESK_EXCLUDES(mMutex);
    bool hasRoom(Admission& admission) VESK_REQUIRES(mMutex);
    void admit(Packet packet, Admission& admission) VESK_REQUIRES(mMutex);
    void finish(Admission const& admission) VESK_EXCLUDES(mMutex);
    /** Takes the packet where it returns true, and leaves it alone where it returns false. */
    bool enqueuePacket(Packet& packet) VESK_REQUIRES(mMutex);
    Packet dequeuePacket() VESK_EXCLUDES(mMutex);
    Packet removePacket(Packet const& packet) VESK_EXCLUDES(mMutex);
    bool replacePacket(Packet const& packet) VESK_EXCLUDES(mMutex);
    /** A packet of the queue's own, which no host has seen. */
    Packet makePacket(int priority, bool needRetransmission, std::shared_ptr<VeskFrame> frame)
            VESK_REQUIRES(mMutex);
    static void markSeen(QueuedPacket& packet);
    /** Lets go of a packet that has left the chain or the history. */
    void letGo(Packet packet, Released& released) VESK_REQUIRES(mMutex);
    void insertByPriority(Packet&& packet) VESK_REQUIRES(mMutex);
    /** Takes a packet out of the chain. @return what keeps it alive, to be released unlocked. */
    Packet unlink(QueuedPacket* packet) VESK_REQUIRES(mMutex);
    void countPending(int change) VESK_REQUIRES(mMutex);

    // Looper
    void looper();
    bool runPass(Released& released) VESK_EXCLUDES(mMutex);
    bool acksAreDue(uint64_t now) const VESK_REQUIRES(mMutex);
    Packets expireHistory(Pass& pass) VESK_REQUIRES(mMutex);
    void sleep(Pass& pass) VESK_EXCLUDES(mMutex);
    /**
     * Asks for another pass.
     * @return whether mCond has to be notified. That is for when the lock is no longer held, or
     *         else the looper wakes up to wait for the lock; where it is rare it does not matter.
     */
    bool wakeLooper() VESK_REQUIRES(mMutex);
    void wakeStalled() VESK_REQUIRES(mMutex);
    void cleanup() VESK_EXCLUDES(mMutex);

    // Transmission
    void sendDuePackets(Pass& pass) VESK_EXCLUDES(mMutex);
    /**
     * Takes out what the pass has just sent and picks what it sends next; null ends the walk. The
     * frame lives until the next call.
     */
    VeskFrame const* nextDeparture(Pass& pass, std::vector<uint8_t>& bytes) VESK_EXCLUDES(mMutex);
    QueuedPacket* placeInChain(Pass& pass) VESK_REQUIRES(mMutex);
    bool mustEnd(Pass const& pass) const VESK_REQUIRES(mMutex);
    QueuedPacket* findDue(QueuedPacket* from, Pass& pass) const VESK_REQUIRES(mMutex);
    bool addToHistoryList(QueuedPacket* packet, uint64_t sendTime) VESK_REQUIRES(mMutex);

    // Reception
    void receiveFromChannel(std::shared_ptr<VeskFrame> frame) VESK_EXCLUDES(mMutex);
    void receiveAckMessage(VeskFrame const& frame) VESK_EXCLUDES(mMutex);
    void recordOwedAck(uint16_t serialNumber) VESK_EXCLUDES(mMutex);
    bool sleepsPastAcks() const VESK_REQUIRES(mMutex);
    size_t owedAcks() const VESK_EXCLUDES(mMutex);
    void forgetOwedAcks() VESK_REQUIRES(mMutex);
    void ackToPeer() VESK_REQUIRES(mMutex);

    uint16_t const mTimeout = ACK_TIMEOUT_MS;
    uint64_t const mMaxHistory = MAX_AWAITING_ACK;
    uint64_t const mMaxQueueSize = MAX_PENDING;
    bool mRunning VESK_GUARDED_BY(mMutex) = true;
    VeskFeedback mFeedback;
    std::condition_variable mCond;
    std::thread mThread VESK_GUARDED_BY(mMutex);
    mutable std::mutex mMutex;
    Packet mHead VESK_GUARDED_BY(mMutex);
    // Left as it is when the chain runs empty; meaningful only while mHead is not null.
    Packet mTail VESK_GUARDED_BY(mMutex);
    WaitAckList mWaitAckList VESK_GUARDED_BY(mMutex);
    uint64_t mFirstAckTime VESK_GUARDED_BY(mMutex) = 0;
    std::vector<AckMessage> mAckList VESK_GUARDED_BY(mMutex);

    pid_t const mProcess;
    std::thread::id mLooper VESK_GUARDED_BY(mMutex);
    bool mLooperEnded VESK_GUARDED_BY(mMutex) = false;
    std::condition_variable mEnded;  // mLooperEnded is true
    std::atomic<int> mPending{0};    // length of the chain; written under mMutex
    // The packet that the looper is handing over, as long as that admission of it is pending; and
    // then, where someone has taken it out meanwhile, what keeps it alive for the looper.
    QueuedPacket* mSending VESK_GUARDED_BY(mMutex) = nullptr;
    Packet mInHand VESK_GUARDED_BY(mMutex);
    size_t mOwedUnrecorded VESK_GUARDED_BY(mMutex) = 0;    // beyond what mAckList keeps
    bool mWakeAsked VESK_GUARDED_BY(mMutex) = false;       // since the pass began
    bool mAsleep VESK_GUARDED_BY(mMutex) = false;          // and nobody has woken it yet
    uint64_t mSleepsUntil VESK_GUARDED_BY(mMutex) = 0;     // ms of uptime, if nobody wakes it
    bool mHistoryWasFull VESK_GUARDED_BY(mMutex) = false;  // the last pass stopped at it
    Packets mDropped VESK_GUARDED_BY(mMutex);              // to be let go of outside the lock
    Packets mSpare VESK_GUARDED_BY(mMutex);                // used again, without frames

    // Since the construction.
    uint64_t mAcknowledged VESK_GUARDED_BY(mMutex) = 0;
    uint64_t mTimedOut VESK_GUARDED_BY(mMutex) = 0;
    uint64_t mSuperseded VESK_GUARDED_BY(mMutex) = 0;
    uint64_t mRefused VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk
