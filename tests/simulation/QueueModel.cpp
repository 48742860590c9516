#include "QueueModel.h"

#include <algorithm>
#include <sstream>
#include <tuple>

#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>
#include <vesk/testkit/FarPeer.h>

namespace vesk::simulation {

using testkit::FarPeer;

namespace {

constexpr uint64_t HOLD_MS = 2000, EXPIRY_MS = 2000, ACK_AGE_MS = 500;
constexpr size_t ACK_COUNT = 5;

Bytes wireBytes(VeskFrame const& frame) {
    return FarPeer::encode({frame.topicId, frame.businessId, frame.msgType, frame.reply,
                            frame.serialNumber, frame.msgId, frame.data});
}

bool sameMessage(VeskFrame const& a, VeskFrame const& b) {
    return std::tie(a.topicId, a.businessId, a.msgId, a.msgType, a.reply) ==
           std::tie(b.topicId, b.businessId, b.msgId, b.msgType, b.reply);
}

}  // namespace

void QueueModel::admit(uint64_t now, int priority, bool needsAck,
                       std::shared_ptr<VeskFrame> frame) {
    if (mPending.size() + mInWrite >= BOUND) {
        ++mTotals["refused at the bound"];
        return;
    }
    // A copy: the library may change the original's data, and must do so as replace() does here.
    insert({priority, now, needsAck, std::make_shared<VeskFrame>(*frame)});
}

void QueueModel::insert(Packet packet) {
    auto const behind = std::find_if(mPending.begin(), mPending.end(), [&](Packet const& other) {
        return other.priority > packet.priority;
    });
    mPending.insert(behind, std::move(packet));
}

bool QueueModel::replace(VeskFrame const& with) {
    for (Packet& packet : mPending) {
        if (!sameMessage(*packet.frame, with)) continue;
        packet.frame->data = with.data;
        return true;
    }
    return false;
}

void QueueModel::owe(uint64_t now, uint16_t serialNumber) {
    ++mReceived;
    ++mTotals["frames accepted"];
    mOwed.push_back({now, serialNumber});
}

void QueueModel::acknowledge(uint64_t now,
                             std::vector<std::pair<uint16_t, uint16_t>> const& holdAndSerial) {
    for (auto const& [hold, serialNumber] : holdAndSerial) {
        auto const sent = std::find_if(
                mHistory.begin(), mHistory.end(),
                [serial = serialNumber](Sent const& s) { return s.serialNumber == serial; });
        if (sent == mHistory.end()) continue;
        measured(static_cast<uint32_t>(now - sent->time - hold));
        mHistory.erase(sent);
        ++mTotals["acknowledged"];
    }
}

void QueueModel::cleanup() {
    mTotals["cleared"] += mHistory.size();
    mPending.clear();
    mHistory.clear();
    mOwed.clear();
    mSent = mReceived = mDelay = mSlow = 0;
}

void QueueModel::measured(uint32_t delay) {
    mDelay = delay;
    mSlow = delay > 1500 ? mSlow + 1 : 0;
}

void QueueModel::pass(uint64_t now) {
    batchAcks(now);
    expire(now);
    for (auto next = mPending.begin(); next != mPending.end();) {
        auto const packet = next++;
        if (packet->priority != 1 && now - packet->admitted < HOLD_MS) continue;
        if (packet->needsAck && !record(now, *packet)) return;
        mWrites.push_back(wireBytes(*packet->frame));
        if (ackedInside(mWrites.back())) {
            acknowledge(now, {{0, packet->frame->serialNumber}});
        }
        ++mSent;
        ++mTotals["frames written"];
        mPending.erase(packet);
    }
}

void QueueModel::batchAcks(uint64_t now) {
    if (mOwed.empty() || (mOwed.size() < ACK_COUNT && now - mOwed.front().time < ACK_AGE_MS)) {
        return;
    }
    if (mOwed.size() <= BOUND) {
        std::vector<FarPeer::Ack> entries;
        for (Owed const& owed : mOwed) {
            entries.push_back({static_cast<uint16_t>(now - owed.time), owed.serialNumber});
        }
        auto ack = std::make_shared<VeskFrame>();
        ack->unSerialze(FarPeer::encode(FarPeer::ackFrame(entries)));
        insert({1, now, false, std::move(ack)});
    }
    mOwed.clear();
}

void QueueModel::expire(uint64_t now) {
    for (auto sent = mHistory.begin(); sent != mHistory.end();) {
        if (now - sent->time < EXPIRY_MS) {
            ++sent;
            continue;
        }
        measured(60000);
        sent = mHistory.erase(sent);
        ++mTotals["timed out"];
    }
}

bool QueueModel::record(uint64_t now, Packet const& packet) {
    VeskFrame const& frame = *packet.frame;
    auto const older = std::find_if(mHistory.begin(), mHistory.end(),
                                    [&](Sent const& s) { return s.msgId == frame.msgId; });
    if (older != mHistory.end()) {
        mHistory.erase(older);
        ++mTotals["superseded"];
    }
    if (mHistory.size() >= BOUND) {
        return false;
    }
    mHistory.push_back({now, frame.serialNumber, frame.msgId});
    ++mTotals["sent to be acknowledged"];
    return true;
}

bool QueueModel::ackedInside(Bytes const& write) {
    return write[5] != 1 && write.size() > 12 && write[12] % 20 == 0;
}

uint64_t QueueModel::nextDeadline() const {
    uint64_t deadline = UINT64_MAX;
    for (Packet const& packet : mPending) {
        if (packet.priority != 1) deadline = std::min(deadline, packet.admitted + HOLD_MS);
    }
    if (!mHistory.empty()) deadline = std::min(deadline, mHistory.front().time + EXPIRY_MS);
    if (!mOwed.empty()) deadline = std::min(deadline, mOwed.front().time + ACK_AGE_MS);
    return deadline;
}

std::string QueueModel::compare(VeskQueue const& queue) const {
    struct Row {
        char const* name;
        uint64_t expected, found;
    };
    VeskFeedback const& feedback = queue.feedback();
    std::ostringstream differences;
    for (Row const& row :
         {Row{"pending", mPending.size(), static_cast<uint64_t>(queue.size())},
          Row{"awaiting", mHistory.size(), queue.awaitingAck()},
          Row{"owed", mOwed.size(), queue.owedAcks()}, Row{"sent", mSent, feedback.sentPackets()},
          Row{"received", mReceived, feedback.receivedPackets()},
          Row{"delay", mDelay, feedback.delay()}, Row{"slow", mSlow, feedback.slowCount()}}) {
        if (row.expected == row.found) continue;
        differences << row.name << " is " << row.found << " instead of " << row.expected << "; ";
    }
    return differences.str();
}

std::string QueueModel::balance() {
    uint64_t left = mHistory.size();
    for (char const* how : {"acknowledged", "timed out", "superseded", "cleared"}) {
        left += mTotals[how];
    }
    return left == mTotals["sent to be acknowledged"] ? ""
                                                      : "packets left the history twice or never";
}

}  // namespace vesk::simulation
