#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>
#include <vesk/testkit/FarPeer.h>

#include "Trace.h"

namespace vesk::simulation {

using Bytes = std::vector<uint8_t>;
using FramePtr = std::shared_ptr<VeskFrame>;

/**
 * What the queue has promised, whatever passes it makes: told of every call before it is made, it
 * judges each line that the looper logs and each write as it happens, and at rest it knows what
 * must have been done. Bounds and times are written down a second time.
 */
class QueueModel {
public:
    using Packet = VeskQueue::QueuedPacket;
    static constexpr size_t BOUND = 1000;

    QueueModel(VeskQueue& queue, Trace& trace) : mQueue(queue), mTrace(trace) {}

    // What is about to be asked of the queue. `packet` is null where the queue makes its own.
    void admit(int priority, bool needsAck, FramePtr const& frame, Packet* packet);
    bool replace(VeskFrame const& with);
    /** Takes out one of the frames below, of a packet that somebody else holds from then on. */
    struct Taken {
        std::weak_ptr<VeskFrame> frame, next;
    };
    Taken take(VeskFrame const* frame);
    void owe(uint16_t serialNumber);
    void acknowledge(VeskFrame const& ack);
    void cleanup();

    // What the queue does.
    bool logged(std::string const& line);
    void writing(Bytes const& bytes) const;
    void written();
    void rest();
    /** The other queue is gone; what it had to let go of may still be the end of a chain here. */
    void inherit(QueueModel const& other);

    /** From the next rest on nothing of the library's may hold the frame. */
    void letGo(std::weak_ptr<VeskFrame> frame) { mGone.push_back(std::move(frame)); }
    /** Or from the rest after the next write on: the end of an emptied chain stays that long. */
    void mayKeep(std::weak_ptr<VeskFrame> frame) { mStale.push_back(std::move(frame)); }

    /** The first pending one, or the one in the write; null where there is none. */
    VeskFrame const* first() const;
    VeskFrame const* inWrite() const;
    Packet* packetInWrite() const { return mInWrite ? mInWrite->packet : nullptr; }
    VeskFrame const* find(Packet* packet) const;
    /** Whether a packet of priority 1 would not leave at once. */
    bool stuck() const { return mPending.size() >= BOUND || firstDue() != nullptr; }
    bool tooManyOwed() const { return mOwed.size() >= BOUND; }
    bool empty() const { return mPending.empty() && mHistory.empty() && mOwed.empty(); }
    /** When the next packet or acknowledgement falls due; the largest number where none does. */
    uint64_t nextDeadline() const;
    std::map<std::string, uint64_t> const& totals() const { return mTotals; }

private:
    struct Pending {
        int priority;
        bool needsAck;
        uint64_t admitted;
        uint64_t pass;  // of the looper, as far as they can be told apart
        VeskFrame frame;
        std::weak_ptr<VeskFrame> held;
        Packet* packet;

        uint64_t due() const { return priority == 1 ? admitted : admitted + 2000; }
    };
    struct Sent {
        uint64_t earliest, latest;  // a pass gives all that it sends the time of its beginning
        uint16_t serialNumber, msgId;
        std::weak_ptr<VeskFrame> held;
    };
    struct Owed {
        uint64_t time;
        uint16_t serialNumber;
    };
    struct Range {
        uint32_t least, most;
    };

    static uint64_t now() { return quillex::SystemClock::uptimeMillis(); }
    void insert(Pending packet);
    Pending const* firstDue() const;
    bool acksDue() const;
    std::list<Sent>::iterator sentAs(uint16_t msgId);
    bool blocked(Pending const& packet);
    void newPass();
    void batchAck(std::string const& line);
    void queueAcks(std::string const& line);
    void expire(std::string const& line);
    void beginSend(std::string const& line);
    void record(Pending const& packet);
    void meetFullHistory(std::string const& line);
    void measured(Range delay);
    void compareNumbers() const;
    void requireReleased();

    VeskQueue& mQueue;
    Trace& mTrace;
    std::list<Pending> mPending;
    Pending* mInWrite = nullptr;
    Bytes mBytes;  // of the write
    std::list<Sent> mHistory;
    std::list<Owed> mOwed;
    std::vector<testkit::FarPeer::Ack> mBatch;
    std::vector<std::weak_ptr<VeskFrame>> mGone, mStale;
    bool mResting = true;
    uint64_t mPass = 0, mPassStart = 0;
    int mSendsBeforeAcks = 0;
    uint32_t mSent = 0, mReceived = 0;
    Range mDelay{0, 0}, mSlow{0, 0};
    std::map<std::string, uint64_t> mTotals;
};

}  // namespace vesk::simulation
