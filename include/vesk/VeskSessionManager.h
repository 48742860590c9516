#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>

#include <vesk/VeskExport.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk {

class SessionRegistry;
class VeskSession;
struct SessionEntry;

/**
 * Creates, finds and removes sessions, hands out their ids and announces providers.
 *
 * Threads: every operation may be called from any thread and from inside a callback. Two live
 *          sessions never have one id, two threads that create the same provider get one session,
 *          and a session that several calls remove is announced as gone once. But a call that finds
 *          a session while another thread is announcing or removing it does not wait for that: what
 *          must have happened when a call returns belongs on one thread.
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

    VeskSessionManager();
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
     *         the topic has not been created or was removed by another thread meanwhile, the
     *         business is not in the catalogue, or every id is in use. A failure changes nothing.
     *         An existing provider's id is returned also while another thread is just creating it,
     *         and while a callback tells the host that it is gone.
     */
    int createSession(int clientId, int type, std::string const& topicName,
                      std::string const& businessName, bool flag) VESK_EXCLUDES(mMutex);

    /** Resolves names; null unless the topic has been created and has such a business. */
    std::shared_ptr<VeskSessionDesc> getSessionDesc(std::string const& topicName,
                                                    std::string const& businessName) const;

    /**
     * Allocates the lowest free session id, without a session. It stays allocated until
     * removeSession() is called with it.
     * @return 1 to 65534, or -1 when all are in use.
     */
    int makeSessionId() VESK_EXCLUDES(mMutex);

    /**
     * The session with this id; null when there is none. A provider that is being announced as gone
     * is found before a consumer that has got its id meanwhile.
     */
    std::shared_ptr<VeskSession> getSession(uint16_t sessionId) const VESK_EXCLUDES(mMutex);

    /**
     * Removes one session and frees its id. A consumer leaves its topic, and with it whatever else
     * has this id there. A provider is announced as gone but stays in its topic, which goes on
     * routing to it; removeSessionByClient() takes providers out of their topics as well.
     *
     * The id is free before the announcement: a session that the callback creates may get it, and
     * is not touched. getSession() finds the provider until the announcement is over, or until the
     * callback gives its id to another provider. A callback
     * that removes it again ends it at once, without another announcement. A provider that is
     * removed while it is announced as new enters its topic afterwards, and stays there.
     *
     * @return the number of sessions removed, 0 or 1. One of several calls that remove the same
     *         session counts it.
     */
    size_t removeSession(uint16_t sessionId) VESK_EXCLUDES(mMutex);

    /**
     * Removes every session of a client, also from their topics, and announces each provider as
     * gone. What a callback creates for the client meanwhile stays. @return always 0.
     */
    int removeSessionByClient(uint32_t clientId) VESK_EXCLUDES(mMutex);

private:
    friend class SessionRegistry;
    friend class Vesk;
    using SessionTable = std::unordered_map<uint16_t, std::shared_ptr<VeskSession>>;

    /** Ends it: the tables let go of their sessions, and nothing is created any more. */
    void close() VESK_EXCLUDES(mMutex);
    bool join(std::shared_ptr<SessionEntry> const& entry, std::string const& topicName,
              std::string const& businessName) VESK_EXCLUDES(mMutex);
    size_t removeAllOf(int type, uint32_t clientId) VESK_EXCLUDES(mMutex);

    std::set<uint16_t> mSessionIds VESK_GUARDED_BY(mMutex);
    SessionTable mConsumerSessions VESK_GUARDED_BY(mMutex);
    SessionTable mProviderSessions VESK_GUARDED_BY(mMutex);
    mutable std::mutex mMutex;
    const std::unique_ptr<SessionRegistry> mRegistry;  // takes mMutex
};

}  // namespace vesk
