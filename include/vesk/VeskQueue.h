#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

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
 * Acknowledgements owed to the peer leave five at a time or 500 ms after the oldest. Frames that
 * are pending with priority 1 leave before them, in the order of admission.
 *
 * Threads:   every operation may be called from any thread and from inside a callback, but for
 *            those marked "looper only". The host's sendToChannel() runs on the looper thread;
 *            while it blocks, nothing else leaves, and what was sent goes on ageing.
 * Locks:     mutex() guards everything that can change but the counters; it is never held while the
 *            facade, a topic, the host or a destructor of the host's runs. Some log lines are
 *            written under it: a log sink must not call the queue.
 * Ownership: shares each frame until it is sent and, where asked for, acknowledged or expired. The
 *            packet that was the last one pending when dequeuePacket() or cleanup() took it out is
 *            the exception: the queue keeps it, and its frame, until the next admission or its end.
 * Channel:   every queue sends through the facade's one callback. A queue that a host makes for
 *            itself calls sendToChannel() on its own looper thread, beside the facade's queue.
 * Limits:    1000 packets pending and 1000 awaiting acknowledgement. The packet that finds the
 *            queue full is dropped, which is logged and reported to nobody: look at size() before.
 *            With 1000 awaiting acknowledgement nothing that needs one is sent, but in the place of
 *            one with its msgId, and what is pending behind it waits too. A sender that keeps
 *            size() + awaitingAck() at 900 or below never meets either bound, with room for the
 *            acknowledgement frames and for senders that looked at the same moment.
 * Times:     milliseconds of uptime, unsigned 64-bit.
 * fork():    a child process has no looper. There stop() and the destructor return at once; nothing
 *            else may be called.
 */
class VESK_EXPORT VeskQueue {
public:
    /**
     * One entry of the queue: a frame with its priority and times.
     *
     * Ownership: always held by android::sp<>. A pending entry is also held by its neighbours.
     * Threads:   priority(), needRetransmission() and getFrame() never change. The times may be
     *            read on any thread. Those of an entry that a queue holds, pending or awaiting
     *            acknowledgement, belong to that queue.
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
        uint64_t enqueueTime() const { return __atomic_load_n(&mEnqueueTime, __ATOMIC_RELAXED); }
        /** Always 0: nothing assigns it. */
        uint64_t enqueueOrder() const { return mEnqueueOrder; }
        /** ms of uptime of the hand-over to the channel; 0 before. */
        uint64_t sendTime() const { return __atomic_load_n(&mSendTime, __ATOMIC_RELAXED); }

        void updateEnqueueTime(unsigned long long t) {
            __atomic_store_n(&mEnqueueTime, t, __ATOMIC_RELAXED);
        }
        void updateSendTime(unsigned long long t) {
            __atomic_store_n(&mSendTime, t, __ATOMIC_RELAXED);
        }

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
        // The queue in whose chain the packet is pending; null where it is in none.
        std::atomic<void const*> mHolder{nullptr};
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
            VESK_EXCLUDES(mutex());

    /**
     * Like enqueue(), for a packet of the caller's. One that is pending already, in this queue or
     * in another, is refused ("enqueue fail." is logged).
     */
    void push(android::sp<QueuedPacket>& packet) VESK_EXCLUDES(mutex());

    /**
     * Puts a packet into its place, behind all of its priority, whatever the number pending, and
     * without waking the looper.
     *
     * REQUIRES: the caller holds mutex().
     * @return false, with nothing changed, after stop() and for a packet that is null or is pending
     *         already, in this queue or in another.
     */
    bool enqueuePacket(android::sp<QueuedPacket>& packet) VESK_REQUIRES(mutex());

    /**
     * Takes the first pending packet; null when there is none and after stop(). That packet may be
     * the one that sendToChannel() is just writing: its send goes on, and where it needs
     * acknowledgement that is awaited. Admitted again, it is sent again.
     */
    android::sp<QueuedPacket> dequeuePacket() VESK_EXCLUDES(mutex());

    /**
     * Takes one packet out of the pending ones; nothing happens to one that is not pending here. As
     * with dequeuePacket(), it may be the one that is just being written.
     * @return the packet that followed it; null when it was the last or was not pending here.
     */
    android::sp<QueuedPacket> removePacket(android::sp<QueuedPacket> const& packet)
            VESK_EXCLUDES(mutex());

    /**
     * Gives the first pending frame that agrees in topic, business, msgId, msgType and reply the
     * data of the packet's frame. It keeps its place, times, serial number and msgId. A frame that
     * sendToChannel() is just writing still counts as pending; the new data is not written then.
     *
     * This writes `data` and `dataSize` of a frame that its sender shares. A host that replaces
     * packets must therefore not read those two fields of a frame that it has handed over.
     * @return false when no pending frame agrees; the packet is not queued then.
     */
    bool replacePacket(android::sp<QueuedPacket>& packet) VESK_EXCLUDES(mutex());

    /** Number of pending packets. A packet counts until sendToChannel() has returned from it. */
    int size() const;
    bool empty() const { return size() == 0; }

    /** Number of sent packets that await acknowledgement. */
    size_t awaitingAck() const VESK_EXCLUDES(mutex());

    /** Number of accepted data frames that have not been acknowledged to the peer. */
    size_t owedAcks() const VESK_EXCLUDES(mutex());

    /**
     * Looper only: sends what is due of the packets that are pending now.
     * @param nextTime lowered to the ms until something else falls due.
     */
    void sendPacketToNetwork(unsigned long long& nextTime) VESK_EXCLUDES(mutex());

    /**
     * Records a packet that is about to be sent, where it needs acknowledgement.
     *
     * REQUIRES: the caller holds mutex().
     * @return false when 1000 packets are recorded.
     */
    bool addToHistoryList(android::sp<QueuedPacket>& packet) VESK_REQUIRES(mutex());

    /**
     * Takes out every packet that is pending or awaits acknowledgement, forgets every
     * acknowledgement owed and resets the counters. The queue goes on working. Of what was pending,
     * the last packet is let go of at the next admission only; see "Ownership" above.
     */
    void cleanup() VESK_EXCLUDES(mutex());

    /**
     * Takes every frame that the host has read from the channel: an acknowledgement releases what
     * it acknowledges; a data frame of the catalogue is delivered through its topic, on this
     * thread, counted and acknowledged to the peer, also when the topic is not present. Anything
     * else, and null, is dropped. A frame received twice is delivered twice. After stop(), frames
     * are delivered and counted, but not acknowledged.
     */
    void receiveFromChannel(std::shared_ptr<VeskFrame> frame) VESK_EXCLUDES(mutex());

    /**
     * Applies one acknowledgement frame: entries of 2 bytes hold time in ms and 2 bytes serial
     * number. Ignored whole when the frame's reply field is not its number of entries. Of several
     * packets with one serial number, an entry releases the oldest.
     */
    void receiveAckMessage(std::shared_ptr<VeskFrame> frame) VESK_EXCLUDES(mutex());

    /**
     * Looper only: queues one frame that acknowledges everything owed; with more than 1000 owed, it
     * forgets them all instead.
     *
     * REQUIRES: the caller holds mutex().
     */
    void ackToPeer() VESK_REQUIRES(mutex());

    VeskFeedback const& feedback() const;

    /** The lock that enqueuePacket(), addToHistoryList() and ackToPeer() want held. */
    std::mutex& mutex() const;

    /** Makes the looper look at the clock again: for a clock that has been moved. */
    void wake() VESK_EXCLUDES(mutex());

    /** Whether the looper sleeps, with nothing left to do when it last looked at the clock. */
    bool idle() const VESK_EXCLUDES(mutex());

    /**
     * Ends the looper: waits for a sendToChannel() that is under way, unless called from inside it
     * or from the destructor of a frame that the looper lets go of. What is pending is not sent any
     * more, and admission is refused. Every call waits in this way.
     */
    void stop() VESK_EXCLUDES(mutex());

    // What has become of the packets since the queue was made; cleanup() resets none of these.

    /** Packets that the peer has acknowledged. */
    uint64_t acknowledged() const VESK_EXCLUDES(mutex());
    /** Packets whose acknowledgement has not come within 2000 ms. */
    uint64_t timedOut() const VESK_EXCLUDES(mutex());
    /** Packets that have left the wait for acknowledgement because a later one had their msgId. */
    uint64_t superseded() const VESK_EXCLUDES(mutex());
    /** Packets that were dropped at admission: 1000 were pending, or see enqueuePacket(). */
    uint64_t refused() const VESK_EXCLUDES(mutex());

private:
    struct State;

    std::shared_ptr<State> const mState;
};

}  // namespace vesk
