#include "queue/WaitAckList.h"

#include <vesk/VeskFrame.h>

#include <algorithm>
#include <utility>

#include "queue/QueueRules.h"

namespace vesk {

void WaitAckList::append(Packet const& packet, VeskFrame const& frame, uint64_t sendTime) {
    mEarliestSend = mEntries.empty() ? sendTime : std::min(mEarliestSend, sendTime);
    auto const entry = mEntries.insert(mEntries.end(), {packet, {}, {}});
    entry->bySerial = mBySerial.emplace(frame.serialNumber, entry);
    entry->byMsgId = mByMsgId.emplace(frame.msgId, entry);
}

WaitAckList::Packet WaitAckList::takeBySerial(uint16_t serialNumber) {
    return takeFirst(mBySerial, serialNumber);
}

WaitAckList::Packet WaitAckList::takeByMsgId(uint16_t msgId) {
    return takeFirst(mByMsgId, msgId);
}

WaitAckList::Packet WaitAckList::takeFirst(Index const& index, uint16_t key) {
    auto const found = index.lower_bound(key);  // find() may give any of equal keys
    return found == index.end() || found->first != key ? nullptr : take(found->second);
}

WaitAckList::Packet WaitAckList::take(Entries::iterator entry) {
    Packet packet = std::move(entry->packet);
    mBySerial.erase(entry->bySerial);
    mByMsgId.erase(entry->byMsgId);
    mEntries.erase(entry);
    return packet;
}

WaitAckList::Packets WaitAckList::takeExpired(uint64_t now, uint64_t timeout) {
    Packets expired;
    uint64_t earliest = UINT64_MAX;
    for (auto next = mEntries.begin(); next != mEntries.end();) {
        auto const entry = next++;
        uint64_t const sendTime = entry->packet->sendTime();
        if (elapsed(now, sendTime) >= timeout) {
            expired.push_back(take(entry));
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
    for (Entry& entry : mEntries) {
        all.push_back(std::move(entry.packet));
    }
    mBySerial.clear();
    mByMsgId.clear();
    mEntries.clear();
    return all;
}

}  // namespace vesk
