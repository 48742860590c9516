#pragma once

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <list>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include <quillex/SystemClock.h>
#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>
#include <vesk/testkit/FarPeer.h>

namespace vesk::simulation {

using testkit::FarPeer;
using Bytes = std::vector<uint8_t>;
using FramePtr = std::shared_ptr<VeskFrame>;
using WeakFrame = std::weak_ptr<VeskFrame>;

inline uint64_t now() {
    return quillex::SystemClock::uptimeMillis();
}

template <typename... Parts>
std::string text(Parts const&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

/** Ends the process at the first difference: the library may be in no state to be taken down. */
template <typename... Parts>
void require(bool holds, Parts const&... otherwise) {
    if (holds) return;
    std::cerr << "failed at " << now() << " ms: " << text(otherwise...) << std::endl;
    std::abort();
}

/**
 * What the queue has promised, whatever passes it makes: told of every call before it is made, it
 * judges each line that is logged and each write as it happens, and at rest it knows what must have
 * been done. Bounds and times are written down a second time.
 */
class QueueModel {
public:
    using Packet = VeskQueue::QueuedPacket;
    static constexpr size_t BOUND = 1000, ACK_COUNT = 5, LATE_SENDS = 2;
    static constexpr uint64_t TIMEOUT_MS = 2000, ACK_AGE_MS = 500;

    explicit QueueModel(VeskQueue& queue) : mQueue(queue) {}

    /** A line that a call will log. */
    void expect(std::string line) { mLines.push_back(std::move(line)); }

    /** `packet` is null where the queue makes its own. */
    void admit(int priority, bool needsAck, FramePtr const& frame, Packet* packet) {
        if (!packet) expect(text("enqueue:", frame->msgId, "; priority:", priority));
        bool const full = mPending.size() >= BOUND;
        bool const again = packet && find(packet) != mPending.end();
        mRefused += full || again;
        if (full && !packet) letGo(frame);
        if (full) return expect(text("oversize.", mPending.size()));
        expect(text("enqueuing packet:", frame->msgId));
        if (again) return expect("enqueue fail.");
        insert({priority, needsAck, now(), mPass, *frame, frame, packet});
    }

    /** Takes out a packet, the first one for null. @return its frame. */
    WeakFrame take(Packet* packet) { return take(packet ? find(packet) : mPending.begin()); }

    void owe(uint16_t serialNumber) {
        mOwed.emplace_back(now(), serialNumber);
        ++mReceived;
    }

    void acknowledge(std::vector<FarPeer::Ack> const& acks) {
        for (FarPeer::Ack const& ack : acks) {
            auto const sent = oldest(&Sent::serial, ack.serialNumber);
            if (sent != mHistory.end()) forget(sent, mAcknowledged);
        }
    }

    void cleanup() {
        expect("cleanup.");
        if (!mPending.empty()) mayKeep(mPending.back().held);
        for (Pending const& packet : mPending)
            letGo(packet.held);
        for (Sent const& sent : mHistory)
            letGo(sent.held);
        mPending.clear();
        mHistory.clear();
        mOwed.clear();
        mInWrite = mPending.end();
        mSent = mReceived = 0;
    }

    void logged(std::string const& line) {
        auto const begins = [&](char const* with) { return line.rfind(with, 0) == 0; };
        if (begins("ackToPeer")) return batchAck(line);
        if (begins("enqueuing packet:170") && !mBatch.empty()) return queueAcks(line);
        if (begins("send timeout:")) return expire(line);
        if (begins("sendToChannel:")) return beginSend(line);
        if (begins("history is oversize")) return require(mHistory.size() >= BOUND, line);
        require(!mLines.empty() && line == mLines.front(), "unexpected line: ", line);
        mLines.pop_front();
    }

    void writing(Bytes const& bytes) const {
        VeskFrame const& f = mInWrite->frame;
        auto const expected = FarPeer::encode(
                {f.topicId, f.businessId, f.msgType, f.reply, f.serialNumber, f.msgId, f.data});
        require(bytes == expected, "written was something else than logged");
    }

    void written() {
        ++mSent;
        if (isWriting()) letGo(take(mInWrite));
    }

    void rest() {
        mResting = true;
        mSendsBeforeAcks = 0;
        if (mOwed.size() > BOUND) mOwed.clear();
        require(mLines.empty(), "a line is missing");
        require(mBatch.empty() && !acksDue(), "owed acknowledgements do not leave");
        require(mHistory.empty() || now() - mHistory.front().latest < TIMEOUT_MS, "no expiry");
        auto const due = [](Pending const& packet) { return packet.due() <= now(); };
        auto const first = std::find_if(mPending.begin(), mPending.end(), due);
        require(!isWriting() && (first == mPending.end() || blocked(*first)),
                "something due does not leave");
        compareNumbers();
        std::set<WeakFrame, std::owner_less<>> needed(mStale.begin(), mStale.end());
        for (Pending const& packet : mPending)
            needed.insert(packet.held);
        for (Sent const& sent : mHistory)
            needed.insert(sent.held);
        for (WeakFrame const& gone : std::exchange(mGone, {}))
            require(gone.expired() || needed.count(gone) != 0, "a frame is held that none needs");
    }

    /** From the next rest on nothing of the library's may hold the frame. */
    void letGo(WeakFrame frame) { mGone.push_back(std::move(frame)); }
    /** Or from the rest after the next write on: the end of an emptied chain stays that long. */
    void mayKeep(WeakFrame frame) { mStale.push_back(std::move(frame)); }

    /** Null where there is none, or one of the queue's own making. */
    Packet* packetInWrite() const { return isWriting() ? mInWrite->packet : nullptr; }
    size_t pending() const { return mPending.size(); }
    size_t owed() const { return mOwed.size(); }
    bool empty() const { return mPending.empty() && mHistory.empty() && mOwed.empty(); }
    /** When the next packet or acknowledgement falls due; the largest number where none does. */
    uint64_t nextDeadline() const {
        uint64_t next = UINT64_MAX;
        for (Pending const& packet : mPending)
            if (packet.due() > now()) next = std::min(next, packet.due());
        if (!mHistory.empty()) next = std::min(next, mHistory.front().earliest + TIMEOUT_MS);
        if (!mOwed.empty()) next = std::min(next, mOwed.front().receiveTime() + ACK_AGE_MS);
        return next;
    }

private:
    struct Pending {
        int priority;
        bool needsAck;
        uint64_t admitted, pass;
        VeskFrame frame;
        WeakFrame held;
        Packet* packet;
        uint64_t due() const { return priority == 1 ? admitted : admitted + TIMEOUT_MS; }
    };
    struct Sent {
        uint64_t earliest, latest;
        uint16_t serial, msgId;
        WeakFrame held;
    };
    using Place = std::list<Pending>::iterator;
    using History = std::list<Sent>;

    bool isWriting() const { return mInWrite != mPending.end(); }

    Place find(Packet* packet) {
        auto const is = [&](Pending const& one) { return one.packet == packet; };
        return std::find_if(mPending.begin(), mPending.end(), is);
    }

    WeakFrame take(Place packet) {
        if (packet == mPending.end()) return {};
        if (packet == mInWrite) mInWrite = mPending.end();
        WeakFrame taken = packet->held;
        mPending.erase(packet);
        return taken;
    }

    void insert(Pending packet) {
        auto const after = [&](Pending const& one) { return one.priority > packet.priority; };
        auto const behind = std::find_if(mPending.begin(), mPending.end(), after);
        mPending.insert(behind, std::move(packet));
    }

    void forget(History::iterator sent, uint64_t& count) {
        letGo(sent->held);
        mHistory.erase(sent);
        ++count;
    }

    History::iterator oldest(uint16_t Sent::*number, uint16_t value) {
        auto const is = [&](Sent const& sent) { return sent.*number == value; };
        return std::find_if(mHistory.begin(), mHistory.end(), is);
    }

    bool blocked(Pending const& packet) {
        return packet.needsAck && mHistory.size() >= BOUND &&
               oldest(&Sent::msgId, packet.frame.msgId) == mHistory.end();
    }

    bool acksDue() const {
        return mOwed.size() >= ACK_COUNT ||
               (!mOwed.empty() && now() - mOwed.front().receiveTime() >= ACK_AGE_MS);
    }

    void newPass() {
        mResting = false;
        mPassStart = now();
        ++mPass;
    }

    void batchAck(std::string const& line) {
        bool const allowed = !mBatch.empty() || (acksDue() && mOwed.size() <= BOUND);
        if (mBatch.empty()) newPass();
        require(allowed && !mOwed.empty(), "not due: ", line);
        uint16_t const serial = mOwed.front().msgSerialNumb();
        require(line == text("ackToPeer serial:", serial, "; 170"), "not the next: ", line);
        mBatch.push_back({static_cast<uint16_t>(now() - mOwed.front().receiveTime()), serial});
        mOwed.pop_front();
    }

    void queueAcks(std::string const& line) {
        require(mOwed.empty(), "some that are owed are left out: ", line);
        VeskFrame frame;
        frame.unSerialze(FarPeer::encode(FarPeer::ackFrame(std::exchange(mBatch, {}))));
        insert({1, false, now(), mPass - 1, frame, {}, nullptr});
        mSendsBeforeAcks = 0;
    }

    void expire(std::string const& line) {
        newPass();
        require(!mHistory.empty() && now() - mHistory.front().earliest >= TIMEOUT_MS &&
                        line == text("send timeout:", mHistory.front().msgId),
                "not expired: ", line);
        forget(mHistory.begin(), mTimedOut);
    }

    void beginSend(std::string const& line) {
        if (mResting) newPass();
        // Owed acknowledgements may have to wait for the send under way, and for one that follows.
        bool const owing = mOwed.size() <= BOUND && acksDue();
        require(!owing || ++mSendsBeforeAcks <= LATE_SENDS, "acknowledgements are late");
        require(!isWriting(), "two writes at once");
        auto const isThis = [&](Pending const& packet) {
            VeskFrame const& f = packet.frame;
            return packet.due() <= now() &&
                   line == text("sendToChannel:", f.msgId, "; serial:", f.serialNumber,
                                ";size:", f.data.size() + 12);
        };
        mInWrite = std::find_if(mPending.begin(), mPending.end(), isThis);
        require(isWriting(), "not due: ", line);
        // What has come or fallen due since the pass began may have to wait for the next one.
        for (auto passed = mPending.begin(); passed != mInWrite; ++passed) {
            require(passed->due() > now() ||
                            ((passed->pass == mPass || passed->due() > mPassStart) &&
                             passed->priority != mInWrite->priority),
                    "overtakes what is due: ", line);
        }
        mGone.insert(mGone.end(), mStale.begin(), mStale.end());
        mStale.clear();
        if (mInWrite->needsAck) record(*mInWrite);
    }

    void record(Pending const& packet) {
        auto const older = oldest(&Sent::msgId, packet.frame.msgId);
        if (older != mHistory.end()) forget(older, mSuperseded);
        require(mHistory.size() < BOUND, "more are awaited than there is room for");
        mHistory.push_back(
                {mPassStart, now(), packet.frame.serialNumber, packet.frame.msgId, packet.held});
    }

    void compareNumbers() {
        VeskFeedback const& count = mQueue.feedback();
        auto const found = text(mQueue.size(), " pending, ", mQueue.awaitingAck(), " awaited, ",
                                mQueue.owedAcks(), " owed, ", count.sentPackets(), " sent, ",
                                count.receivedPackets(), " received; ", mQueue.acknowledged(), ' ',
                                mQueue.timedOut(), ' ', mQueue.superseded(), ' ', mQueue.refused());
        auto const should =
                text(mPending.size(), " pending, ", mHistory.size(), " awaited, ", mOwed.size(),
                     " owed, ", mSent, " sent, ", mReceived, " received; ", mAcknowledged, ' ',
                     mTimedOut, ' ', mSuperseded, ' ', mRefused);
        require(found == should, found, ", not ", should);
    }

    VeskQueue& mQueue;
    std::deque<std::string> mLines;  // that calls have still to log
    std::list<Pending> mPending;
    Place mInWrite = mPending.end();
    History mHistory;
    std::list<AckMessage> mOwed;
    std::vector<FarPeer::Ack> mBatch;
    std::vector<WeakFrame> mGone, mStale;
    bool mResting = true;
    // As far as passes can be told apart.
    uint64_t mPass = 0, mPassStart = 0, mSendsBeforeAcks = 0;
    uint32_t mSent = 0, mReceived = 0;
    // Never reset: they go on from those of the seeds before.
    uint64_t mAcknowledged = mQueue.acknowledged(), mTimedOut = mQueue.timedOut();
    uint64_t mSuperseded = mQueue.superseded(), mRefused = mQueue.refused();
};

}  // namespace vesk::simulation
