#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

#include <vesk/VeskSessionManager.h>
#include <vesk/VeskThreadAnnotations.h>

#include "session/SessionEntry.h"

namespace vesk {

/**
 * Everything about sessions that happens under the session manager's lock: each operation is one
 * step of a creation or a removal, and keeps the manager's tables and the entries in agreement.
 *
 * Locks: each operation takes the manager's lock and calls nobody. What it takes out of a table is
 *        held by its caller, so that no session is destroyed under the lock.
 */
class SessionRegistry {
public:
    using Session = std::shared_ptr<VeskSession>;
    using Entry = std::shared_ptr<SessionEntry>;

    explicit SessionRegistry(VeskSessionManager& manager) : mManager(manager) {}

    /** The result of reserve(). */
    struct Reservation {
        Entry entry;  // null: nothing was reserved
        int id;       // of the entry, else of the provider that exists, else -1
    };

    /** Allocates an id without a session. @return -1 when there is none. */
    int hold();

    /**
     * Looks for the same provider and, where there is none, allocates an id: one step for both.
     * Waits for one that another thread is just making.
     */
    Reservation reserve(SessionKey const& key);

    /**
     * Enters a new session in its table.
     * @return false, with its id free again, where its topic had gone when it was made, and at the
     *         end of the process.
     */
    bool admit(Session const& session, Entry const& entry);

    /** Whether a session may stay in the topic that its creation has just entered it in. */
    bool staysInTopic(Session const& session) const;

    Session find(uint16_t sessionId) const;
    std::vector<Session> sessionsOf(int type, uint32_t clientId) const;
    size_t count(int type) const;

    enum class Turn {
        FIRST,   // the session is the caller's to remove and to announce as gone
        SECOND,  // another removal announces it; the caller need not wait for that to remove it
        LATE,    // there is nothing left to do
    };

    struct Removal {
        Session session;  // null: there is none
        Turn turn;
    };

    /**
     * Begins the removal of the session that has an id, and frees the id. Where nobody has it, it
     * is the turn of a session that is leaving and still found by it.
     */
    Removal beginRemoval(uint16_t sessionId);

    /** Begins the removal of one of a client's sessions, and frees its id. */
    Turn beginRemoval(Session const& session);

    /**
     * Takes a session out of its table at the end of a removal.
     * @return true to one of its removals, false to any other.
     */
    bool endRemoval(Session const& session);

    /** Empties the tables, consumers first, and refuses whatever comes. */
    void close();

private:
    using State = SessionEntry::State;
    using SessionTable = VeskSessionManager::SessionTable;

    Entry allocate(SessionKey const& key, State state) VESK_REQUIRES(mManager.mMutex);
    /** Ends the use of an id: the entry goes on to LEAVING or GONE. */
    void freeId(SessionEntry& entry, State next) VESK_REQUIRES(mManager.mMutex);
    void waitForJoining(SessionKey const& key) VESK_REQUIRES(mManager.mMutex);
    SessionEntry const* findProvider(SessionKey const& key) const VESK_REQUIRES(mManager.mMutex);
    SessionTable& tableOf(int type) const VESK_REQUIRES(mManager.mMutex);
    /** Puts a session into its table, in place of what has its id there. */
    void enter(Session const& session) VESK_REQUIRES(mManager.mMutex);
    std::vector<Session> ownedBy(int type, uint32_t clientId) const VESK_REQUIRES(mManager.mMutex);
    Session find(int type, uint16_t sessionId) const VESK_REQUIRES(mManager.mMutex);
    Session findAny(uint16_t sessionId) const VESK_REQUIRES(mManager.mMutex);

    /** A session in a table, in the order that puts those of one client together. */
    struct Owned {
        int type;
        uint32_t clientId;
        uint16_t id;

        explicit Owned(VeskSession const& session);
        Owned(int itsType, uint32_t itsClient, uint16_t itsId)
            : type(itsType), clientId(itsClient), id(itsId) {}
        bool operator<(Owned const& other) const {
            return std::tie(type, clientId, id) < std::tie(other.type, other.clientId, other.id);
        }
    };

    VeskSessionManager& mManager;
    // What the tables have, so that a client's sessions are found without a walk through all.
    std::set<Owned> mOwned VESK_GUARDED_BY(mManager.mMutex);
    // Of the ids in use.
    std::unordered_map<uint16_t, Entry> mEntries VESK_GUARDED_BY(mManager.mMutex);
    std::vector<Entry> mJoining VESK_GUARDED_BY(mManager.mMutex);
    std::condition_variable mJoined;  // an entry has left mJoining
    // Ids below mNextId are either in use or in mFreedIds, so that the lowest free one is found
    // without searching.
    std::set<uint16_t> mFreedIds VESK_GUARDED_BY(mManager.mMutex);
    uint16_t mNextId VESK_GUARDED_BY(mManager.mMutex) = 1;
    uint64_t mAllocations VESK_GUARDED_BY(mManager.mMutex) = 0;
    bool mClosed VESK_GUARDED_BY(mManager.mMutex) = false;
};

}  // namespace vesk
