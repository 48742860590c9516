#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <utils/RefBase.h>
#include <utils/StrongPointer.h>
#include <vesk/VeskExport.h>
#include <vesk/VeskFeedback.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk {

class VeskFrame;

/** An acknowledgement that is owed to the peer for one accepted data frame. */
class VESK_EXPORT AckMessage {
public:
    /** @param receiveTime ms of uptime at which the data frame was accepted. */
    AckMessage(uint64_t receiveTime, uint16_t serialNumber)
        : mReceiveTime(receiveTime), mSerialNumber(serialNumber) {}

    uint64_t receiveTime() const { return mReceiveTime; }
    uint16_t msgSerialNumb() const { return mSerialNumber; }

private:
    uint64_t mReceiveTime;
    uint16_t mSerialNumber;
};

/**
 * The outgoing packets in priority order, the one thread that sends them, and the acknowledgements
 * of both directions.
 *
 * A packet of priority 1 leaves at once, any other 2000 ms after its admission. A packet that needs
 * acknowledgement is then kept in a history until the peer acknowledges its serial number, a packet
 * of the same msgId is sent after it, or 2000 ms have passed; nothing is ever sent twice.
 * Acknowledgements owed to the peer leave five at a time or 500 ms after the oldest.
 *
 * Threads:   every operation may be called from any thread and from inside a callback, but for
 *            those marked "looper only". The host's sendToChannel() runs on the looper thread;
 *            while it blocks, nothing else leaves, and what was sent goes on ageing.
 * Locks:     mMutex guards everything that can change but the counters; it is never held while the
 *            facade, a topic or the host is called. Some log lines are written under it: a log sink
 *            must not call the queue.
 * Ownership: shares each frame until it is sent and, where asked for, acknowledged or expired.
 * Limits:    1000 packets pending and 1000 awaiting acknowledgement. The packet that finds the
 *            queue full is dropped, which is logged and reported to nobody: look at size() before.
 * Times:     milliseconds of uptime, unsigned 64-bit.
 */
class VESK_EXPORT VeskQueue {
public:
    /**
     * One entry of the queue: a frame with its priority and times.
     *
     * Ownership: always held by android::sp<>. A pending entry is also held by its neighbours.
     * Threads:   priority(), needRetransmission() and getFrame() never change. The times and links
     *            of an entry that a queue holds belong to that queue.
     */
    class VESK_EXPORT QueuedPacket : public android::RefBase {
    public:
        /**
         * @param priority           smaller is sent first; 1 is sent without hold-back.
         * @param needRetransmission true: the peer's acknowledgement is awaited, and its absence
         *                           recorded. The frame is not sent again.
         * @param frame              becomes shared with the entry.
         */
        QueuedPacket(int priority, bool needRetransmission, std::shared_ptr<VeskFrame> frame);

        /** Copies all but the send time and the place in a chain. */
        QueuedPacket(QueuedPacket const& other);
        QueuedPacket& operator=(QueuedPacket const&) = delete;

        int priority() const { return mPriority; }
        bool needRetransmission() const { return mNeedRetransmission; }
        std::shared_ptr<VeskFrame> getFrame() const { return mFrame; }
        /** ms of uptime of construction or, later, of admission to a queue. */
        uint64_t enqueueTime() const { return mEnqueueTime; }
        /** Always 0: nothing assigns it. */
        uint64_t enqueueOrder() const { return mEnqueueOrder; }
        /** ms of uptime of the hand-over to the channel; 0 before. */
        uint64_t sendTime() const { return mSendTime; }

        void updateEnqueueTime(unsigned long long t) { mEnqueueTime = t; }
        void updateSendTime(unsigned long long t) { mSendTime = t; }

        /**
         * Whether this entry is less urgent than `other`: a greater priority number; at the same
         * priority the one that needs no acknowledgement; else the one enqueued later. false for a
         * null `other` and for entries that are equal in all three.
         */
        bool less(android::sp<QueuedPacket>& other) const;

    protected:
        ~QueuedPacket() override;

    private:
        friend class VeskQueue;

        android::sp<QueuedPacket> mPrev;
        android::sp<QueuedPacket> mNext;
        int32_t mPriority;
        uint64_t mEnqueueTime = 0;
        uint64_t mSendTime = 0;
        uint64_t mEnqueueOrder = 0;
        bool mNeedRetransmission;
        std::shared_ptr<VeskFrame> mFrame;
    };

    /** Starts the looper thread. Throws std::system_error, and makes no queue, where it cannot. */
    VeskQueue();

    /** stop(), then cleanup(). */
    ~VeskQueue();
    VeskQueue(VeskQueue const&) = delete;
    VeskQueue& operator=(VeskQueue const&) = delete;

    /**
     * Queues a frame for the peer. Returns at once. Nothing is queued when the frame is null, when
     * 1000 packets are pending ("oversize." is logged) or after stop() ("sending a packet to died
     * queue" and "enqueue fail." are logged).
     */
    void enqueue(int priority, bool needRetransmission, std::shared_ptr<VeskFrame> frame)
            VESK_EXCLUDES(mMutex);

    /** Like enqueue(), for a packet of the caller's, which no queue may hold already. */
    void push(android::sp<QueuedPacket>& packet) VESK_EXCLUDES(mMutex);

    /**
     * Puts a packet into its place, behind all of its priority, whatever the number pending, and
     * without waking the looper.
     *
     * REQUIRES: the caller holds mutex().
     * @return false, with nothing changed, after stop() and for a packet that is null or pending.
     */
    bool enqueuePacket(android::sp<QueuedPacket>& packet) VESK_REQUIRES(mMutex);

    /** Takes the first pending packet; null when there is none and after stop(). */
    android::sp<QueuedPacket> dequeuePacket() VESK_EXCLUDES(mMutex);

    /**
     * Takes one packet out of the pending ones; nothing happens to one that no queue holds.
     * @return the packet that followed it; null when it was the last.
     */
    android::sp<QueuedPacket> removePacket(android::sp<QueuedPacket> const& packet)
            VESK_EXCLUDES(mMutex);

    /**
     * Gives the first pending frame that agrees in topic, business, msgId, msgType and reply the
     * data of the packet's frame. It keeps its place, times, serial number and msgId. A frame that
     * sendToChannel() is just writing still counts as pending; the new data is not written then.
     * @return false when no pending frame agrees; the packet is not queued then.
     */
    bool replacePacket(android::sp<QueuedPacket>& packet) VESK_EXCLUDES(mMutex);

    /** Number of pending packets. A packet counts until sendToChannel() has returned from it. */
    int size() const { return mPending; }
    bool empty() const { return mPending == 0; }

    /** Number of sent packets that await acknowledgement. */
    size_t awaitingAck() const VESK_EXCLUDES(mMutex);

    /** Number of accepted data frames that have not been acknowledged to the peer. */
    size_t owedAcks() const VESK_EXCLUDES(mMutex);

    /**
     * Looper only: sends what is due of the packets that are pending now.
     * @param nextTime lowered to the ms until something else falls due.
     */
    void sendPacketToNetwork(unsigned long long& nextTime) VESK_EXCLUDES(mMutex);

    /**
     * Records a packet that is about to be sent, where it needs acknowledgement.
     *
     * REQUIRES: the caller holds mutex().
     * @return false when 1000 packets are recorded.
     */
    bool addToHistoryList(android::sp<QueuedPacket>& packet) VESK_REQUIRES(mMutex);

    /**
     * Drops every packet that is pending or awaits acknowledgement and every acknowledgement owed,
     * and resets the counters. The queue goes on working.
     */
    void cleanup() VESK_EXCLUDES(mMutex);

    /**
     * Takes every frame that the host has read from the channel: an acknowledgement releases what
     * it acknowledges; a data frame of the catalogue is delivered through its topic, on this
     * thread, counted and acknowledged to the peer, also when the topic is not present. Anything
     * else, and null, is dropped. A frame received twice is delivered twice.
     */
    void receiveFromChannel(std::shared_ptr<VeskFrame> frame) VESK_EXCLUDES(mMutex);

    /**
     * Applies one acknowledgement frame: entries of 2 bytes hold time in ms and 2 bytes serial
     * number. Ignored whole when the frame's reply field is not its number of entries.
     */
    void receiveAckMessage(std::shared_ptr<VeskFrame> frame) VESK_EXCLUDES(mMutex);

    /**
     * Looper only: queues one frame that acknowledges everything owed; with more than 1000 owed, it
     * forgets them all instead.
     *
     * REQUIRES: the caller holds mutex().
     */
    void ackToPeer() VESK_REQUIRES(mMutex);

    VeskFeedback const& feedback() const { return mFeedback; }

    /** The lock that enqueuePacket(), addToHistoryList() and ackToPeer() want held. */
    std::mutex& mutex() VESK_RETURNS_LOCK(mMutex) { return mMutex; }

    /** Makes the looper look at the clock again: for a clock that has been moved. */
    void wake() VESK_EXCLUDES(mMutex);

    /** Whether the looper sleeps, with nothing left to do when it last looked at the clock. */
    bool idle() const VESK_EXCLUDES(mMutex);

    /**
     * Ends the looper: waits for a sendToChannel() that is under way, unless called from inside it.
     * What is pending is not sent any more, and admission is refused. Further calls do nothing; one
     * that comes while another waits does not wait itself.
     */
    void stop() VESK_EXCLUDES(mMutex);

private:
    using PacketList = std::list<android::sp<QueuedPacket>>;

    void looper();
    bool runPass();
    void sendOwedAcks(uint64_t now, unsigned long long& nextTime) VESK_REQUIRES(mMutex);
    PacketList expireHistory(uint64_t now, unsigned long long& nextTime) VESK_REQUIRES(mMutex);
    void sleep(uint64_t passStart, unsigned long long nextTime) VESK_EXCLUDES(mMutex);
    void wakeLooper() VESK_REQUIRES(mMutex);

    android::sp<QueuedPacket> nextDue(android::sp<QueuedPacket> const& from, int& budget,
                                      uint64_t now, unsigned long long& nextTime) const
            VESK_REQUIRES(mMutex);
    void wakeStalled() VESK_REQUIRES(mMutex);
    bool recordSend(android::sp<QueuedPacket>& packet, uint64_t now, unsigned long long& nextTime,
                    std::vector<uint8_t>& bytes) VESK_REQUIRES(mMutex);

    bool isChained(QueuedPacket const* packet) const VESK_REQUIRES(mMutex);
    void insertByPriority(android::sp<QueuedPacket> const& packet) VESK_REQUIRES(mMutex);
    void recordOwedAck(uint16_t serialNumber) VESK_EXCLUDES(mMutex);

    const uint16_t mTimeout;
    const uint64_t mMaxHistory;
    const uint64_t mMaxQueueSize;
    bool mRunning VESK_GUARDED_BY(mMutex);
    VeskFeedback mFeedback;
    std::condition_variable mCond;
    std::thread mThread VESK_GUARDED_BY(mMutex);
    mutable std::mutex mMutex;
    android::sp<QueuedPacket> mHead VESK_GUARDED_BY(mMutex);
    // Left as it is when the chain runs empty; meaningful only while mHead is not null.
    android::sp<QueuedPacket> mTail VESK_GUARDED_BY(mMutex);
    PacketList mWaitAckList VESK_GUARDED_BY(mMutex);
    uint64_t mFirstAckTime VESK_GUARDED_BY(mMutex) = 0;
    std::list<AckMessage> mAckList VESK_GUARDED_BY(mMutex);

    std::atomic<int> mPending{0};                     // written under mMutex, with the chain
    bool mWakeAsked VESK_GUARDED_BY(mMutex) = false;  // since the pass began
    bool mAsleep VESK_GUARDED_BY(mMutex) = false;
    bool mHistoryWasFull VESK_GUARDED_BY(mMutex) = false;  // the last pass stopped at it
    PacketList mDropped VESK_GUARDED_BY(mMutex);           // to be let go of outside the lock
};

}  // namespace vesk
