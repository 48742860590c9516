#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk {

class VeskSession;

/**
 * Creates, finds and removes sessions, hands out their ids and announces providers.
 *
 * Threads: memory stays sound whatever threads call, and every operation may be called from inside
 *          a callback. Creations and removals belong on one thread at a time: two that race over
 *          the same session each do their steps, and announce them, in an order that nobody chose.
 * Locks:   none is held while a topic, the facade or the host is called.
 */
class VESK_EXPORT VeskSessionManager {
public:
    static constexpr int CONSUMER = 1;
    static constexpr int PROVIDER = 2;
    /** What createSession() returns when it fails. */
    static constexpr int CREATE_FAILED = -4;

    /** A (topic name, business name) pair resolved to ids. */
    struct VeskSessionDesc {
        uint16_t topicId = 0;
        uint16_t businessId = 0;
    };

    VeskSessionManager() = default;
    ~VeskSessionManager();
    VeskSessionManager(VeskSessionManager const&) = delete;
    VeskSessionManager& operator=(VeskSessionManager const&) = delete;

    /**
     * Joins a client to a business. A new provider is announced with notifyBusinessChanged() before
     * its topic routes to it.
     *
     * @param clientId the host's own id for the client; removeSessionByClient() matches on it.
     * @param type     1 consumer, 2 provider.
     * @param flag     tells apart providers that are otherwise the same.
     * @return the new session's id, 1 to 65534; for a provider that exists already (same client,
     *         topic, business and flag) the existing one's id; -4 when the type is neither 1 nor 2,
     *         the topic has not been created, the business is not in the catalogue, or every id is
     *         in use. A failure changes nothing.
     */
    int createSession(int clientId, int type, std::string const& topicName,
                      std::string const& businessName, bool flag) VESK_EXCLUDES(mMutex);

    /** Resolves names; null unless the topic has been created and has such a business. */
    std::shared_ptr<VeskSessionDesc> getSessionDesc(std::string const& topicName,
                                                    std::string const& businessName) const;

    /**
     * Allocates the lowest free session id. It stays allocated until removeSession() is called
     * with it. @return 1 to 65534, or -1 when all are in use.
     */
    int makeSessionId() VESK_EXCLUDES(mMutex);

    /** The session with this id, provider or consumer; null when there is none. */
    std::shared_ptr<VeskSession> getSession(uint16_t sessionId) const VESK_EXCLUDES(mMutex);

    /**
     * Removes one session and frees its id. A consumer leaves its topic too. A provider is
     * announced as gone but stays in its topic, which goes on routing to it;
     * removeSessionByClient() takes providers out of their topics as well.
     *
     * The id is free before the announcement; getSession() finds the provider until it is over.
     *
     * @return the number of sessions removed, 0 or 1.
     */
    size_t removeSession(uint16_t sessionId) VESK_EXCLUDES(mMutex);

    /**
     * Removes every session of a client, also from their topics, and announces each provider as
     * gone. @return always 0.
     */
    int removeSessionByClient(uint32_t clientId) VESK_EXCLUDES(mMutex);

private:
    using SessionTable = std::unordered_map<uint16_t, std::shared_ptr<VeskSession>>;

    int allocateId() VESK_REQUIRES(mMutex);
    void freeId(uint16_t sessionId) VESK_REQUIRES(mMutex);
    SessionTable& tableOf(int type) VESK_REQUIRES(mMutex) {
        return type == PROVIDER ? mProviderSessions : mConsumerSessions;
    }
    SessionTable const& tableOf(int type) const VESK_REQUIRES(mMutex) {
        return type == PROVIDER ? mProviderSessions : mConsumerSessions;
    }
    std::shared_ptr<VeskSession> find(int type, uint16_t sessionId) const VESK_REQUIRES(mMutex);
    std::shared_ptr<VeskSession> findDuplicate(uint32_t clientId, VeskSessionDesc const& desc,
                                               bool flag) const VESK_REQUIRES(mMutex);

    // Steps of creation and removal; a session that has been replaced under its id stays out of it.
    void admit(std::shared_ptr<VeskSession> const& session, std::string const& topicName,
               std::string const& businessName) VESK_EXCLUDES(mMutex);
    bool release(std::shared_ptr<VeskSession> const& session) VESK_EXCLUDES(mMutex);
    static void leaveTopic(VeskSession const& session);
    size_t forget(std::shared_ptr<VeskSession> const& session) VESK_EXCLUDES(mMutex);

    size_t removeAllOf(int type, uint32_t clientId) VESK_EXCLUDES(mMutex);
    std::vector<std::shared_ptr<VeskSession>> sessionsOf(int type, uint32_t clientId) const
            VESK_EXCLUDES(mMutex);

    std::set<uint16_t> mSessionIds VESK_GUARDED_BY(mMutex);
    SessionTable mConsumerSessions VESK_GUARDED_BY(mMutex);
    SessionTable mProviderSessions VESK_GUARDED_BY(mMutex);

    // Sessions whose removal has begun and not ended: a callback may ask for it again.
    std::set<VeskSession const*> mLeaving VESK_GUARDED_BY(mMutex);
    // Ids below mNextId are either in use or in mFreedIds, so that the lowest free one is found
    // without searching.
    std::set<uint16_t> mFreedIds VESK_GUARDED_BY(mMutex);
    uint16_t mNextId VESK_GUARDED_BY(mMutex) = 1;
    mutable std::mutex mMutex;
};

}  // namespace vesk
