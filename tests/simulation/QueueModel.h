#pragma once

#include <algorithm>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>
#include <vesk/testkit/FarPeer.h>

#include "Require.h"

namespace vesk::simulation {

using testkit::FarPeer;
using Bytes = std::vector<uint8_t>;
using FramePtr = std::shared_ptr<VeskFrame>;
using WeakFrame = std::weak_ptr<VeskFrame>;

/**
 * What the queue has promised, whatever passes it makes: told of every call before it is made, it
 * judges each line that is logged and each write as it happens, and at rest it knows what must have
 * been done. Bounds and times are written down a second time.
 */
class QueueModel {
public:
    using Packet = VeskQueue::QueuedPacket;
    static constexpr size_t BOUND = 1000, ACK_COUNT = 5;
    static constexpr uint64_t TIMEOUT_MS = 2000, ACK_AGE_MS = 500;
    static constexpr int LATE_SENDS = 2;

    explicit QueueModel(VeskQueue& queue) : mQueue(queue) {}

    template <typename... Parts>
    void expect(Parts const&... parts) {
        mLines.push_back(text(parts...));
    }

    /** `packet` is null where the queue makes its own. */
    void admit(int priority, bool needsAck, FramePtr const& frame, Packet* packet) {
        if (!packet) expect("enqueue:", frame->msgId, "; priority:", priority);
        if (mPending.size() >= BOUND) {
            letGo(frame);
            ++totals["refused at the bound"];
            return expect("oversize.", mPending.size());
        }
        expect("enqueuing packet:", frame->msgId);
        if (packet && find(packet)) return expect("enqueue fail.");
        insert({priority, needsAck, now(), mPass, *frame, frame, packet});
    }

    bool replace(VeskFrame const& with) {
        auto const message = [](VeskFrame const& f) {
            return std::tie(f.topicId, f.businessId, f.msgId, f.msgType, f.reply);
        };
        for (Pending& packet : mPending) {
            if (message(packet.frame) != message(with)) continue;
            packet.frame.data = with.data;
            return true;
        }
        return false;
    }

    /** Takes out one of the frames below. @return it, and the one that followed. */
    std::pair<WeakFrame, WeakFrame> take(VeskFrame const* frame) {
        std::pair<WeakFrame, WeakFrame> taken;
        for (auto packet = mPending.begin(); packet != mPending.end(); ++packet) {
            if (&packet->frame != frame) continue;
            if (&*packet == mInWrite) mInWrite = nullptr;
            taken.first = packet->held;
            packet = mPending.erase(packet);
            if (packet != mPending.end()) taken.second = packet->held;
            break;
        }
        return taken;
    }

    void owe(uint16_t serialNumber) {
        mOwed.emplace_back(now(), serialNumber);
        ++mReceived;
        ++totals["frames accepted"];
    }

    void acknowledge(VeskFrame const& ack) {
        auto const u16 = [&](size_t at) {
            return static_cast<uint16_t>(ack.data[at] | ack.data[at + 1] << 8);
        };
        if (ack.reply != ack.data.size() / 4) return;
        for (size_t at = 0; at + 4 <= ack.data.size(); at += 4) {
            auto const is = [&](Sent const& sent) { return sent.serial == u16(at + 2); };
            auto const sent = std::find_if(mHistory.begin(), mHistory.end(), is);
            if (sent == mHistory.end()) continue;
            // A pass gives all that it sends the time of its beginning, which is not known then.
            mGuessed = mGuessed || sent->earliest != sent->latest;
            measured(static_cast<uint32_t>(now() - sent->latest - u16(at)));
            forget(sent, "acknowledged");
        }
    }

    void cleanup() {
        expect("cleanup.");
        if (!mPending.empty()) mayKeep(mPending.back().held);
        if (!mPending.empty()) mPending.pop_back();
        for (Pending const& packet : mPending)
            letGo(packet.held);
        while (!mHistory.empty())
            forget(mHistory.begin(), "cleared");
        mPending.clear();
        mOwed.clear();
        mInWrite = nullptr;
        mSent = mReceived = mDelay = mSlow = 0;
        mGuessed = false;
    }

    void logged(std::string const& line) {
        static constexpr std::pair<char const*, void (QueueModel::*)(std::string const&)> DEEDS[] =
                {{"ackToPeer", &QueueModel::batchAck},
                 {"enqueuing packet:170", &QueueModel::queueAcks},
                 {"send timeout:", &QueueModel::expire},
                 {"sendToChannel:", &QueueModel::beginSend},
                 {"history is oversize", &QueueModel::meetFullHistory}};
        for (auto const& [beginning, judge] : DEEDS) {
            if (line.rfind(beginning, 0) != 0) continue;
            if (judge == &QueueModel::queueAcks && mBatch.empty()) continue;
            if (mResting) newPass();
            return (this->*judge)(line);
        }
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
        ++totals["frames written"];
        if (mInWrite) letGo(take(&mInWrite->frame).first);
    }

    void rest() {
        mResting = true;
        mSendsBeforeAcks = 0;
        if (mOwed.size() > BOUND) mOwed.clear();
        require(mLines.empty(), "a line is missing");
        require(mBatch.empty() && !acksDue(), "owed acknowledgements do not leave");
        require(mHistory.empty() || now() - mHistory.front().latest < TIMEOUT_MS,
                "nothing expires");
        auto const due = firstDue();
        require(!mInWrite && (!due || blocked(*due)), "something due does not leave");
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
    /** The other queue is gone; what it let go of may still be the end of a chain here. */
    void inherit(QueueModel const& other) {
        mStale.insert(mStale.end(), other.mGone.begin(), other.mGone.end());
        mStale.insert(mStale.end(), other.mStale.begin(), other.mStale.end());
    }

    /** Of pending packets; null where there is none. */
    VeskFrame const* at(size_t place) const {
        return place < mPending.size() ? &std::next(mPending.begin(), ptrdiff_t(place))->frame
                                       : nullptr;
    }
    VeskFrame const* find(Packet* packet) const {
        for (Pending const& entry : mPending)
            if (entry.packet == packet) return &entry.frame;
        return nullptr;
    }
    Packet* packetInWrite() const { return mInWrite ? mInWrite->packet : nullptr; }

    /** Whether a packet of priority 1 would not leave at once. */
    bool stuck() const { return mPending.size() >= BOUND || firstDue(); }
    bool tooManyOwed() const { return mOwed.size() >= BOUND; }
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

    std::map<std::string, uint64_t> totals;

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
    using History = std::list<Sent>;

    void insert(Pending packet) {
        auto behind = mPending.begin();
        while (behind != mPending.end() && behind->priority <= packet.priority)
            ++behind;
        mPending.insert(behind, std::move(packet));
    }

    void forget(History::iterator sent, char const* why) {
        letGo(sent->held);
        mHistory.erase(sent);
        ++totals[why];
    }

    History::iterator sentAs(uint16_t msgId) {
        auto const is = [&](Sent const& sent) { return sent.msgId == msgId; };
        return std::find_if(mHistory.begin(), mHistory.end(), is);
    }

    bool blocked(Pending const& packet) {
        return packet.needsAck && mHistory.size() >= BOUND &&
               sentAs(packet.frame.msgId) == mHistory.end();
    }

    Pending const* firstDue() const {
        for (Pending const& packet : mPending)
            if (packet.due() <= now()) return &packet;
        return nullptr;
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
        measured(60000);
        forget(mHistory.begin(), "timed out");
    }

    void beginSend(std::string const& line) {
        // Owed acknowledgements may have to wait for the send under way, and for one that follows.
        bool const owing = mOwed.size() <= BOUND && acksDue();
        require(!owing || ++mSendsBeforeAcks <= LATE_SENDS, "acknowledgements are late");
        require(!mInWrite, "two writes at once");
        Pending const* passed = nullptr;
        for (Pending& packet : mPending) {
            VeskFrame const& f = packet.frame;
            if (packet.due() > now()) continue;
            if (line == text("sendToChannel:", f.msgId, "; serial:", f.serialNumber,
                             ";size:", f.data.size() + 12)) {
                mInWrite = &packet;
                break;
            }
            // What has come or fallen due since the pass began may have to wait for the next one.
            bool const late = packet.pass == mPass || packet.due() > mPassStart;
            require(late, "overtakes what is due: ", line);
            passed = &packet;
        }
        require(mInWrite && (!passed || passed->priority != mInWrite->priority), "not due: ", line);
        for (WeakFrame const& stale : std::exchange(mStale, {}))
            letGo(stale);
        if (mInWrite->needsAck) record(*mInWrite);
    }

    void record(Pending const& packet) {
        auto const older = sentAs(packet.frame.msgId);
        if (older != mHistory.end()) forget(older, "superseded");
        require(mHistory.size() < BOUND, "more are awaited than there is room for");
        mHistory.push_back(
                {mPassStart, now(), packet.frame.serialNumber, packet.frame.msgId, packet.held});
        ++totals["sent to be acknowledged"];
    }

    void meetFullHistory(std::string const& line) {
        for (Pending const& packet : mPending)
            if (packet.due() <= now() && blocked(packet)) return;
        require(false, line, ", but it is not");
    }

    void measured(uint32_t delay) {
        mDelay = delay;
        mSlow = delay > 1500 ? mSlow + 1 : 0;
    }

    void compareNumbers() {
        VeskFeedback const& feedback = mQueue.feedback();
        if (mGuessed) std::tie(mDelay, mSlow) = std::pair(feedback.delay(), feedback.slowCount());
        mGuessed = false;
        auto const numbers = [](auto const&... all) { return ((text(all) + " ") + ...); };
        auto const found = numbers(mQueue.size(), mQueue.awaitingAck(), mQueue.owedAcks(),
                                   feedback.sentPackets(), feedback.receivedPackets(),
                                   feedback.delay(), feedback.slowCount());
        auto const expected = numbers(mPending.size(), mHistory.size(), mOwed.size(), mSent,
                                      mReceived, mDelay, mSlow);
        require(found == expected, "pending, awaiting, owed, sent, received, delay and slow are ",
                found, "instead of ", expected);
    }

    VeskQueue& mQueue;
    std::deque<std::string> mLines;  // that calls have still to log
    std::list<Pending> mPending;
    Pending* mInWrite = nullptr;
    History mHistory;
    std::list<AckMessage> mOwed;
    std::vector<FarPeer::Ack> mBatch;
    std::vector<WeakFrame> mGone, mStale;
    bool mResting = true, mGuessed = false;
    uint64_t mPass = 0, mPassStart = 0;  // as far as passes can be told apart
    int mSendsBeforeAcks = 0;
    uint32_t mSent = 0, mReceived = 0, mDelay = 0, mSlow = 0;
};

}  // namespace vesk::simulation
