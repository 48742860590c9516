#include "session/SessionRegistry.h"

#include <algorithm>
#include <utility>

#include <vesk/VeskSession.h>

namespace vesk {

namespace {

using Guard = std::lock_guard<std::mutex>;

constexpr uint16_t ID_LIMIT = 0xFFFF;  // never handed out

}  // namespace

int SessionRegistry::hold() {
    Guard const lock(mManager.mMutex);
    auto const entry = allocate({}, State::HELD);
    return entry ? entry->id : -1;
}

SessionRegistry::Reservation SessionRegistry::reserve(SessionKey const& key) {
    Guard const lock(mManager.mMutex);
    if (key.type == VeskSessionManager::PROVIDER) {
        waitForJoining(key);
        if (auto const* const existing = findProvider(key)) return {nullptr, existing->id};
    }
    auto const entry = allocate(key, State::JOINING);
    if (!entry) {
        return {nullptr, -1};
    }
    mJoining.push_back(entry);
    return {entry, entry->id};
}

SessionRegistry::Entry SessionRegistry::allocate(SessionKey const& key, State state) {
    uint16_t id = mNextId;
    if (mClosed) {
        return nullptr;
    }
    // The lowest free id comes first, also when a higher one has been free for longer.
    if (!mFreedIds.empty()) {
        id = *mFreedIds.begin();
        mFreedIds.erase(mFreedIds.begin());
    } else if (mNextId == ID_LIMIT) {
        return nullptr;
    } else {
        ++mNextId;
    }
    auto entry = std::make_shared<SessionEntry>(SessionEntry{id, ++mAllocations, key, state});
    mManager.mSessionIds.insert(id);
    mEntries[id] = entry;
    return entry;
}

void SessionRegistry::freeId(SessionEntry& entry, State next) {
    entry.state = next;
    mManager.mSessionIds.erase(entry.id);
    mFreedIds.insert(entry.id);
    mEntries.erase(entry.id);
}

// Its id must not be told before it is known whether it stays: the topic may be gone. That takes no
// longer than the session's constructor.
void SessionRegistry::waitForJoining(SessionKey const& key) {
    // The guard's lock is adopted for the wait and given back by release().
    std::unique_lock<std::mutex> lock(mManager.mMutex, std::adopt_lock);
    auto const isTheSame = [&](Entry const& joining) { return joining->key == key; };
    while (std::any_of(mJoining.begin(), mJoining.end(), isTheSame))
        mJoined.wait(lock);
    lock.release();
}

SessionEntry const* SessionRegistry::findProvider(SessionKey const& key) const {
    for (auto const& session : ownedBy(VeskSessionManager::PROVIDER, key.clientId)) {
        if (session->mEntry->key == key) return session->mEntry.get();
    }
    return nullptr;
}

bool SessionRegistry::admit(Session const& session, Entry const& entry) {
    Guard const lock(mManager.mMutex);
    // Whoever waits for the same provider looks again when the lock is free, and finds it in its
    // table, or nowhere.
    mJoining.erase(std::find(mJoining.begin(), mJoining.end(), entry));
    mJoined.notify_all();
    if (mClosed || !session->getTopic()) {
        freeId(*entry, State::GONE);
        return false;
    }
    entry->state = State::LIVE;
    session->mEntry = entry;  // tells it from a later session that gets the same id
    // Another provider may have this place, while its removal, which holds it, announces that.
    enter(session);
    return true;
}

bool SessionRegistry::staysInTopic(Session const& session) const {
    Guard const lock(mManager.mMutex);
    return !mClosed && !session->mEntry->leavesTopic;
}

SessionRegistry::Session SessionRegistry::find(uint16_t sessionId) const {
    Guard const lock(mManager.mMutex);
    return findAny(sessionId);
}

SessionRegistry::Session SessionRegistry::findAny(uint16_t sessionId) const {
    auto provider = find(VeskSessionManager::PROVIDER, sessionId);
    return provider ? provider : find(VeskSessionManager::CONSUMER, sessionId);
}

std::vector<SessionRegistry::Session> SessionRegistry::sessionsOf(int type,
                                                                  uint32_t clientId) const {
    Guard const lock(mManager.mMutex);
    return ownedBy(type, clientId);
}

std::vector<SessionRegistry::Session> SessionRegistry::ownedBy(int type, uint32_t clientId) const {
    std::vector<Session> found;
    auto const isTheirs = [=](Owned const& owned) {
        return owned.type == type && owned.clientId == clientId;
    };
    for (auto next = mOwned.lower_bound({type, clientId, 0});
         next != mOwned.end() && isTheirs(*next); ++next) {
        found.push_back(find(type, next->id));
    }
    return found;
}

size_t SessionRegistry::count(int type) const {
    Guard const lock(mManager.mMutex);
    return tableOf(type).size();
}

SessionRegistry::Removal SessionRegistry::beginRemoval(uint16_t sessionId) {
    Guard const lock(mManager.mMutex);
    if (mManager.mSessionIds.count(sessionId) == 0) {
        return {findAny(sessionId), Turn::SECOND};
    }
    Entry const entry = mEntries.at(sessionId);
    switch (entry->state) {
        case State::LIVE:
            freeId(*entry, State::LEAVING);
            entry->leavesTopic = entry->key.type == VeskSessionManager::CONSUMER;
            return {find(entry->key.type, sessionId), Turn::FIRST};
        case State::HELD:
            freeId(*entry, State::GONE);
            break;
        default:  // JOINING: its creation comes first
            break;
    }
    return {nullptr, Turn::LATE};
}

SessionRegistry::Turn SessionRegistry::beginRemoval(Session const& session) {
    Guard const lock(mManager.mMutex);
    SessionEntry& entry = *session->mEntry;
    entry.leavesTopic = true;
    switch (entry.state) {
        case State::LIVE:
            freeId(entry, State::LEAVING);
            return Turn::FIRST;
        case State::LEAVING:
            return Turn::SECOND;
        default:
            return Turn::LATE;
    }
}

bool SessionRegistry::endRemoval(Session const& session) {
    Guard const lock(mManager.mMutex);
    SessionEntry& entry = *session->mEntry;
    if (entry.state == State::GONE) {
        return false;
    }
    entry.state = State::GONE;
    // The next user of the id may have the place already.
    if (find(entry.key.type, entry.id) == session) {
        mOwned.erase(Owned(*session));
        tableOf(entry.key.type).erase(entry.id);
    }
    return true;
}

void SessionRegistry::close() {
    SessionTable providers, consumers;  // released after the lock, the consumers first
    // A session's last owner may be the table: it goes with its topic and its queue, and their
    // destructors are not run under this lock.
    Guard const lock(mManager.mMutex);
    mClosed = true;
    mOwned.clear();
    providers.swap(mManager.mProviderSessions);
    consumers.swap(mManager.mConsumerSessions);
}

SessionRegistry::Owned::Owned(VeskSession const& session)
    : Owned(session.type(), session.clientId(), session.sessionId()) {}

void SessionRegistry::enter(Session const& session) {
    Session& place = tableOf(session->type())[session->sessionId()];
    if (place) mOwned.erase(Owned(*place));
    place = session;
    mOwned.insert(Owned(*session));
}

SessionRegistry::SessionTable& SessionRegistry::tableOf(int type) const {
    return type == VeskSessionManager::PROVIDER ? mManager.mProviderSessions
                                                : mManager.mConsumerSessions;
}

SessionRegistry::Session SessionRegistry::find(int type, uint16_t sessionId) const {
    SessionTable const& table = tableOf(type);
    auto const found = table.find(sessionId);
    return found == table.end() ? nullptr : found->second;
}

}  // namespace vesk
