#include "QueueModel.h"

#include <set>
#include <tuple>

namespace vesk::simulation {

using testkit::FarPeer;

namespace {

constexpr uint64_t EXPIRY_MS = 2000, ACK_AGE_MS = 500;
constexpr size_t ACK_COUNT = 5;
constexpr int LATE_SENDS = 1000;  // a whole pass

auto message(VeskFrame const& frame) {
    return std::tie(frame.topicId, frame.businessId, frame.msgId, frame.msgType, frame.reply);
}

std::string sendLine(VeskFrame const& frame) {
    return text("sendToChannel:", frame.msgId, "; serial:", frame.serialNumber,
                ";size:", frame.data.size() + 12);
}

uint16_t u16(Bytes const& bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

}  // namespace

void QueueModel::admit(int priority, bool needsAck, FramePtr const& frame, Packet* packet) {
    if (!packet) {
        mTrace.expect(text("VeskQueue enqueue:", frame->msgId, "; priority:", priority));
    }
    if (mPending.size() >= BOUND) {
        mTrace.expect(text("VeskQueue oversize.", mPending.size()));
        letGo(frame);
        ++mTotals["refused at the bound"];
        return;
    }
    mTrace.expect(text("VeskQueue enqueuing packet:", frame->msgId));
    if (packet && find(packet)) return mTrace.expect("VeskQueue enqueue fail.");
    insert({priority, needsAck, now(), mPass, *frame, frame, packet});
}

void QueueModel::insert(Pending packet) {
    auto const behind = std::find_if(mPending.begin(), mPending.end(), [&](Pending const& other) {
        return other.priority > packet.priority;
    });
    mPending.insert(behind, std::move(packet));
}

void QueueModel::owe(uint16_t serialNumber) {
    mOwed.push_back({now(), serialNumber});
    ++mReceived;
    ++mTotals["frames accepted"];
}

bool QueueModel::replace(VeskFrame const& with) {
    for (Pending& packet : mPending) {
        if (message(packet.frame) != message(with)) continue;
        packet.frame.data = with.data;
        return true;
    }
    return false;
}

QueueModel::Taken QueueModel::take(VeskFrame const* frame) {
    auto const found = std::find_if(mPending.begin(), mPending.end(),
                                    [&](Pending const& packet) { return &packet.frame == frame; });
    Taken taken{found->held, {}};
    if (&*found == mInWrite) mInWrite = nullptr;
    auto const next = mPending.erase(found);
    if (next != mPending.end()) taken.next = next->held;
    return taken;
}

void QueueModel::acknowledge(VeskFrame const& ack) {
    if (ack.reply != ack.data.size() / 4) return;
    for (size_t at = 0; at + 4 <= ack.data.size(); at += 4) {
        uint16_t const hold = u16(ack.data, at), serial = u16(ack.data, at + 2);
        auto const sent = std::find_if(mHistory.begin(), mHistory.end(),
                                       [&](Sent const& s) { return s.serialNumber == serial; });
        if (sent == mHistory.end()) continue;
        measured({static_cast<uint32_t>(now() - sent->latest - hold),
                  static_cast<uint32_t>(now() - sent->earliest - hold)});
        letGo(sent->held);
        mHistory.erase(sent);
        ++mTotals["acknowledged"];
    }
}

void QueueModel::cleanup() {
    mTrace.expect("VeskQueue cleanup.");
    if (!mPending.empty()) mayKeep(mPending.back().held);
    if (!mPending.empty()) mPending.pop_back();
    for (Pending const& packet : mPending)
        letGo(packet.held);
    for (Sent const& sent : mHistory)
        letGo(sent.held);
    mTotals["cleared"] += mHistory.size();
    mPending.clear();
    mHistory.clear();
    mOwed.clear();
    mInWrite = nullptr;
    mSent = mReceived = 0;
    mDelay = mSlow = {0, 0};
}

void QueueModel::measured(Range delay) {
    mDelay = delay;
    bool const slow = delay.least > 1500 || delay.most > 1500;
    bool const prompt = delay.least <= 1500 || delay.least > delay.most;
    mSlow = {prompt ? 0 : mSlow.least + 1, slow ? mSlow.most + 1 : 0};
}

bool QueueModel::logged(std::string const& line) {
    static constexpr std::pair<char const*, void (QueueModel::*)(std::string const&)> DEEDS[] = {
            {"ackToPeer", &QueueModel::batchAck},
            {"enqueuing packet:170", &QueueModel::queueAcks},
            {"send timeout:", &QueueModel::expire},
            {"sendToChannel:", &QueueModel::beginSend},
            {"history is oversize", &QueueModel::meetFullHistory}};
    for (auto const& [beginning, judge] : DEEDS) {
        if (line.rfind(beginning, 0) != 0) continue;
        if (judge == &QueueModel::queueAcks && mBatch.empty()) continue;
        if (mResting) newPass();
        (this->*judge)(line);
        return true;
    }
    return false;
}

void QueueModel::newPass() {
    mResting = false;
    mPassStart = now();
    ++mPass;
}

bool QueueModel::acksDue() const {
    return !mOwed.empty() &&
           (mOwed.size() >= ACK_COUNT || now() - mOwed.front().time >= ACK_AGE_MS);
}

void QueueModel::batchAck(std::string const& line) {
    if (mBatch.empty()) {
        newPass();
        require(acksDue() && mOwed.size() <= BOUND, "not due: " + line);
    }
    require(!mOwed.empty() &&
                    line == text("ackToPeer serial:", mOwed.front().serialNumber, "; 170"),
            "nothing owed, or something else first: " + line);
    mBatch.push_back(
            {static_cast<uint16_t>(now() - mOwed.front().time), mOwed.front().serialNumber});
    mOwed.pop_front();
}

void QueueModel::queueAcks(std::string const&) {
    require(mOwed.empty(), "an acknowledgement frame leaves out what is owed");
    VeskFrame frame;
    frame.unSerialze(FarPeer::encode(FarPeer::ackFrame(std::exchange(mBatch, {}))));
    insert({1, false, now(), mPass - 1, frame, {}, nullptr});
    mSendsBeforeAcks = 0;
}

void QueueModel::expire(std::string const& line) {
    newPass();
    require(!mHistory.empty() && now() - mHistory.front().earliest >= EXPIRY_MS &&
                    line == text("send timeout:", mHistory.front().msgId),
            "not expired: " + line);
    measured({60000, 60000});
    letGo(mHistory.front().held);
    mHistory.pop_front();
    ++mTotals["timed out"];
}

void QueueModel::beginSend(std::string const& line) {
    require(!mInWrite, "two writes at once");
    // Owed acknowledgements may have to wait for the send under way, and for one that follows.
    bool const owing = mOwed.size() <= BOUND && acksDue();
    require(!owing || ++mSendsBeforeAcks <= LATE_SENDS, "acknowledgements are late");
    Pending const* passed = nullptr;
    for (Pending& packet : mPending) {
        if (packet.due() > now()) continue;
        if (line == sendLine(packet.frame)) {
            mInWrite = &packet;
            break;
        }
        // What has come or fallen due since the pass began may have to wait for the next one.
        require(packet.pass == mPass || packet.due() > mPassStart,
                "overtakes what is due: " + line);
        passed = &packet;
    }
    require(mInWrite && (!passed || passed->priority != mInWrite->priority), "not due: " + line);
    for (auto const& stale : std::exchange(mStale, {}))
        letGo(stale);
    record(*mInWrite);
    mBytes = FarPeer::encode({mInWrite->frame.topicId, mInWrite->frame.businessId,
                              mInWrite->frame.msgType, mInWrite->frame.reply,
                              mInWrite->frame.serialNumber, mInWrite->frame.msgId,
                              mInWrite->frame.data});
}

std::list<QueueModel::Sent>::iterator QueueModel::sentAs(uint16_t msgId) {
    return std::find_if(mHistory.begin(), mHistory.end(),
                        [&](Sent const& sent) { return sent.msgId == msgId; });
}

void QueueModel::record(Pending const& packet) {
    if (!packet.needsAck) return;
    auto const older = sentAs(packet.frame.msgId);
    if (older != mHistory.end()) {
        letGo(older->held);
        mHistory.erase(older);
        ++mTotals["superseded"];
    }
    require(mHistory.size() < BOUND, "more are awaited than there is room for");
    mHistory.push_back(
            {mPassStart, now(), packet.frame.serialNumber, packet.frame.msgId, packet.held});
    ++mTotals["sent to be acknowledged"];
}

void QueueModel::writing(Bytes const& bytes) const {
    require(mInWrite && bytes == mBytes, "written was something else than logged");
}

void QueueModel::written() {
    ++mSent;
    ++mTotals["frames written"];
    if (mInWrite) letGo(take(&mInWrite->frame).frame);
}

bool QueueModel::blocked(Pending const& packet) {
    return packet.needsAck && mHistory.size() >= BOUND &&
           sentAs(packet.frame.msgId) == mHistory.end();
}

void QueueModel::meetFullHistory(std::string const& line) {
    bool const met = std::any_of(mPending.begin(), mPending.end(), [&](Pending const& packet) {
        return packet.due() <= now() && blocked(packet);
    });
    require(met, line + ", but it is not");
}

QueueModel::Pending const* QueueModel::firstDue() const {
    auto const first = std::find_if(mPending.begin(), mPending.end(),
                                    [&](Pending const& packet) { return packet.due() <= now(); });
    return first == mPending.end() ? nullptr : &*first;
}

void QueueModel::rest() {
    mResting = true;
    mSendsBeforeAcks = 0;
    if (mOwed.size() > BOUND) mOwed.clear();
    require(mBatch.empty() && !acksDue(), "owed acknowledgements do not leave");
    require(mHistory.empty() || now() - mHistory.front().latest < EXPIRY_MS, "nothing expires");
    Pending const* const due = firstDue();
    require(!mInWrite && (!due || blocked(*due)), "something due does not leave");
    compareNumbers();
    requireReleased();
}

void QueueModel::requireReleased() {
    auto const alive = [](auto const& frame) { return !frame.expired(); };
    if (std::none_of(mGone.begin(), mGone.end(), alive)) return mGone.clear();
    std::set<std::weak_ptr<VeskFrame>, std::owner_less<>> needed(mStale.begin(), mStale.end());
    for (Pending const& packet : mPending)
        needed.insert(packet.held);
    for (Sent const& sent : mHistory)
        needed.insert(sent.held);
    for (auto const& gone : std::exchange(mGone, {}))
        require(gone.expired() || needed.count(gone) != 0, "a frame is held that nothing needs");
}

void QueueModel::inherit(QueueModel const& other) {
    mStale.insert(mStale.end(), other.mGone.begin(), other.mGone.end());
    mStale.insert(mStale.end(), other.mStale.begin(), other.mStale.end());
}

void QueueModel::compareNumbers() const {
    struct Row {
        char const* name;
        uint64_t found;
        Range expected;
    };
    auto const exactly = [](size_t number) {
        return Range{static_cast<uint32_t>(number), static_cast<uint32_t>(number)};
    };
    VeskFeedback const& feedback = mQueue.feedback();
    for (auto const& [name, found, expected] :
         {Row{"pending", static_cast<uint64_t>(mQueue.size()), exactly(mPending.size())},
          Row{"awaiting", mQueue.awaitingAck(), exactly(mHistory.size())},
          Row{"owed", mQueue.owedAcks(), exactly(mOwed.size())},
          Row{"sent", feedback.sentPackets(), exactly(mSent)},
          Row{"received", feedback.receivedPackets(), exactly(mReceived)},
          Row{"delay", feedback.delay(), mDelay}, Row{"slow", feedback.slowCount(), mSlow}}) {
        require(static_cast<uint32_t>(found) - expected.least <= expected.most - expected.least,
                text(name, " is ", found, ", not ", expected.least, " to ", expected.most));
    }
}

VeskFrame const* QueueModel::first() const {
    return mPending.empty() ? nullptr : &mPending.front().frame;
}

VeskFrame const* QueueModel::inWrite() const {
    return mInWrite ? &mInWrite->frame : nullptr;
}

VeskFrame const* QueueModel::find(Packet* packet) const {
    auto const found = std::find_if(mPending.begin(), mPending.end(),
                                    [&](Pending const& entry) { return entry.packet == packet; });
    return found == mPending.end() ? nullptr : &found->frame;
}

uint64_t QueueModel::nextDeadline() const {
    uint64_t deadline = UINT64_MAX;
    for (Pending const& packet : mPending)
        if (packet.due() > now()) deadline = std::min(deadline, packet.due());
    if (!mHistory.empty()) deadline = std::min(deadline, mHistory.front().earliest + EXPIRY_MS);
    if (!mOwed.empty()) deadline = std::min(deadline, mOwed.front().time + ACK_AGE_MS);
    return deadline;
}

}  // namespace vesk::simulation
