#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <vesk/VeskExport.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk {

class VeskFrame;
class VeskQueue;
class VeskSession;

/**
 * The sessions that have joined one topic, and the routing among them.
 *
 * Ownership: made by VeskTopicManager and shared with the sessions. A topic holds its sessions and
 *            they hold it, so both live until the sessions have been taken out of it, or until the
 *            process ends. What is taken out is let go of with no lock held.
 * Threads:   every operation may be called from any thread and from inside a callback; a session is
 *            called with no lock held, kept alive by a reference of the caller's.
 */
class VESK_EXPORT VeskTopic : public std::enable_shared_from_this<VeskTopic> {
public:
    /**
     * @param isLocal true for a topic that exists only on this side: it never sends to the peer.
     * @param queue   the queue that takes what goes to the peer; shared.
     */
    VeskTopic(uint16_t topicId, bool isLocal, std::shared_ptr<VeskQueue> const& queue);
    ~VeskTopic();
    VeskTopic(VeskTopic const&) = delete;
    VeskTopic& operator=(VeskTopic const&) = delete;

    /**
     * Enters a session under its id, in place of an earlier one with that id. A provider can be
     * addressed like a consumer too. A null session is ignored. What a host enters here itself, the
     * session manager does not know; it goes when removeSession() is called with its id, or the
     * manager removes a session that has its id and this topic.
     *
     * @param sessionId the number to remove it by. Replies are routed by the session's own id,
     *                  which is commonly the same; where a host gives another one, the topic
     *                  searches.
     */
    void addSession(uint16_t sessionId, bool isProvider, std::shared_ptr<VeskSession> session)
            VESK_EXCLUDES(mMutex);

    /** Takes a session out; an unknown id is no error. */
    void removeSession(uint16_t sessionId) VESK_EXCLUDES(mMutex);

    /** Suggests a priority, 2 or 3, for a kind of traffic; 2 for every kind that is not listed. */
    int calPriority(int value) const;

    /**
     * Sends a frame to the peer (priority 1, acknowledgement wanted) or, with `local`, to a session
     * of this process. A local topic refuses to send to the peer with the log line
     * "publish fail for local!". Nothing else happens to a null frame.
     *
     * @param priority accepted and ignored.
     */
    void publish(bool local, std::shared_ptr<VeskFrame> frame, int priority);

    /**
     * Delivers a frame to one session: a request (type 2) to the first provider of its business, a
     * reply (type 3) to the session of its business whose id stands in the frame's reply field. A
     * frame that fits no session, or has another type, is dropped.
     */
    void receive(bool local, std::shared_ptr<VeskFrame> frame) VESK_EXCLUDES(mMutex);

private:
    friend class VeskSessionManager;
    friend class VeskTopicManager;
    using SessionTable = std::unordered_map<uint16_t, std::shared_ptr<VeskSession>>;

    std::shared_ptr<VeskSession> findProvider(uint16_t businessId) const VESK_EXCLUDES(mMutex);
    std::shared_ptr<VeskSession> findConsumer(uint16_t businessId, uint16_t sessionId) const
            VESK_EXCLUDES(mMutex);
    // addSession() and removeSession() as the session manager calls them: where a callback or
    // another thread has given the session's id to a new one, that keeps its place. `late` is the
    // session that comes or goes; null for a host, to whom every place gives way.
    void enter(std::shared_ptr<VeskSession> const& session, bool isProvider) VESK_EXCLUDES(mMutex);
    void leave(VeskSession const& session) VESK_EXCLUDES(mMutex);
    void put(uint16_t sessionId, bool isProvider, std::shared_ptr<VeskSession> const& session,
             VeskSession const* late) VESK_EXCLUDES(mMutex);
    void takeOut(uint16_t sessionId, VeskSession const* late) VESK_EXCLUDES(mMutex);
    static bool isTaken(SessionTable const& table, uint16_t sessionId, VeskSession const* late);
    void dropSessions() VESK_EXCLUDES(mMutex);

    std::string TAG;
    const uint16_t mTopicId;
    bool const mIsLocal;
    const std::shared_ptr<VeskQueue> mQueue;
    SessionTable mProviders VESK_GUARDED_BY(mMutex);
    SessionTable mConsumers VESK_GUARDED_BY(mMutex);  // every session, providers included
    mutable std::mutex mMutex;
    // A host has entered a session under another number than its id: replies are searched for.
    bool mHasOtherKeys VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk
