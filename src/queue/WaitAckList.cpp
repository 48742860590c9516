#include "queue/WaitAckList.h"

#include <vesk/VeskFrame.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "queue/QueueRules.h"

namespace vesk {

namespace {
constexpr size_t MAX_SPARE = 64;
}

void WaitAckList::append(Packet packet, VeskFrame const& frame, uint64_t sendTime) {
    mEarliestSend = mEntries.empty() ? sendTime : std::min(mEarliestSend, sendTime);
    if (mSpare.empty()) mSpare.emplace_back();
    mEntries.splice(mEntries.end(), mSpare, mSpare.begin());
    Entry& entry = mEntries.back();
    entry.packet = std::move(packet);
    entry.place = std::prev(mEntries.end());
    mBySerial.append(entry.serial, entry, frame.serialNumber);
    mByMsgId.append(entry.msgId, entry, frame.msgId);
}

WaitAckList::Packet WaitAckList::takeBySerial(uint16_t serialNumber) {
    return take(mBySerial.oldest(serialNumber));
}

WaitAckList::Packet WaitAckList::takeByMsgId(uint16_t msgId) {
    return take(mByMsgId.oldest(msgId));
}

WaitAckList::Packet WaitAckList::take(Entry* entry) {
    if (entry == nullptr) {
        return nullptr;
    }
    Packet packet = std::move(entry->packet);
    mBySerial.remove(entry->serial);
    mByMsgId.remove(entry->msgId);
    mSpare.splice(mSpare.begin(), mEntries, entry->place);
    if (mSpare.size() > MAX_SPARE) mSpare.pop_back();
    return packet;
}

WaitAckList::Packets WaitAckList::takeExpired(uint64_t now, uint64_t timeout) {
    Packets expired;
    uint64_t earliest = UINT64_MAX;
    for (auto next = mEntries.begin(); next != mEntries.end();) {
        Entry& entry = *next++;
        uint64_t const sendTime = entry.packet->sendTime();
        if (elapsed(now, sendTime) >= timeout) {
            expired.push_back(take(&entry));
        } else {
            earliest = std::min(earliest, sendTime);
        }
    }
    mEarliestSend = earliest;
    return expired;
}

WaitAckList::Packets WaitAckList::takeAll() {
    Packets all;
    all.reserve(mEntries.size());
    while (!mEntries.empty()) {
        all.push_back(take(&mEntries.front()));
    }
    return all;
}

}  // namespace vesk
