#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <vesk/VeskExport.h>

namespace vesk {

class VeskFrame;
class VeskTopic;
struct SessionEntry;

/**
 * One client's endpoint on one business of one topic, as provider (type 2) or consumer (type 1).
 *
 * Ownership: made by VeskSessionManager::createSession() and shared between the manager, the topic
 *            and whoever asked VeskSessionManager::getSession(). It holds its topic, and the topic
 *            holds it until removed.
 * Threads:   immutable once it is found by its id; send() and receive() may run on any threads at
 *            once.
 */
class VESK_EXPORT VeskSession : public std::enable_shared_from_this<VeskSession> {
public:
    /**
     * Looks the topic up in the facade's topic manager, once. A topic that does not exist is no
     * error here: the session then drops what is sent through it. createSession() fails instead.
     */
    VeskSession(uint16_t sessionId, bool flag, int type, uint32_t clientId, uint16_t topicId,
                uint16_t businessId, std::string name);

    /** The topic found at construction, also after it was removed; null when there was none. */
    std::shared_ptr<VeskTopic> getTopic() const;

    /**
     * Publishes a frame through the topic. The frame's header is the sender's business; nothing in
     * it is changed. Without a topic nothing happens, and a null frame goes nowhere.
     *
     * @param local    true: deliver to a session of this process. false: queue it for the peer.
     * @param priority accepted and ignored; what goes to the peer has priority 1.
     */
    void send(bool local, std::shared_ptr<VeskFrame> const& frame, int priority);

    /** Delivers a frame to the host's callback; nothing happens where none is installed. */
    void receive(bool local, std::shared_ptr<VeskFrame> const& frame);

    uint16_t sessionId() const { return mSessionId; }
    uint32_t clientId() const { return mClientId; }
    uint16_t topicId() const { return mTopicId; }
    uint16_t businessId() const { return mBusinessId; }
    bool flag() const { return mFlag; }
    /** 1 consumer, 2 provider. */
    int type() const { return mType; }
    std::string const& name() const { return mName; }

private:
    friend class SessionRegistry;
    friend class VeskTopic;

    /** Whether the manager gave this session an id after the other one had left it. */
    bool hasSucceeded(VeskSession const& other) const;

    std::string TAG;
    std::shared_ptr<VeskTopic> mTopic;
    uint16_t mSessionId;
    uint32_t mClientId;
    uint16_t mTopicId;
    uint16_t mBusinessId;
    bool mFlag;
    int32_t mType;
    std::string mName;
    std::shared_ptr<SessionEntry> mEntry;  // the manager's; null in what it did not make
};

}  // namespace vesk
