#pragma once

#include <vesk/VeskQueue.h>

#include <list>
#include <vector>

#include "queue/KeyIndex.h"

namespace vesk {

/**
 * The sent packets that await acknowledgement, in the order of their sending. An entry is found by
 * serial number or msgId without a walk, whatever a peer acknowledges.
 *
 * Threads: none of its own; the queue's lock guards it. What an operation takes out is handed to
 *          the caller, to be released when that lock is no longer held.
 */
class WaitAckList {
public:
    using Packet = android::sp<VeskQueue::QueuedPacket>;
    using Packets = std::vector<Packet>;

    size_t size() const { return mEntries.size(); }

    /** Appends a packet, to be found by the numbers that its frame has now. */
    void append(Packet packet, VeskFrame const& frame, uint64_t sendTime);

    /** Takes out the oldest entry with this serial number; null when there is none. */
    Packet takeBySerial(uint16_t serialNumber);

    /** Takes out the oldest entry with this msgId; null when there is none. */
    Packet takeByMsgId(uint16_t msgId);

    /** Takes out every entry that was sent `timeout` ms before `now` or earlier, oldest first. */
    Packets takeExpired(uint64_t now, uint64_t timeout);

    /**
     * No entry was sent before this (ms of uptime), so that nothing has to be looked at until the
     * time-out after it. Exact after takeExpired(); at other times an entry that has gone since may
     * still count. Meaningless where size() is 0.
     */
    uint64_t earliestSend() const { return mEarliestSend; }

    /** Takes out everything. */
    Packets takeAll();

private:
    struct Entry {
        Packet packet;
        std::list<Entry>::iterator place;
        KeyIndex<Entry>::Hook serial;
        KeyIndex<Entry>::Hook msgId;
    };
    using Entries = std::list<Entry>;

    Packet take(Entry* entry);

    Entries mEntries;
    Entries mSpare;  // used again, for every frame that is sent needs one
    KeyIndex<Entry> mBySerial;
    KeyIndex<Entry> mByMsgId;
    uint64_t mEarliestSend = 0;
};

}  // namespace vesk
