#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <vesk/VeskExport.h>
#include <vesk/VeskThreadAnnotations.h>

namespace vesk {

class VeskQueue;
class VeskTopic;

/**
 * The live topics by id. A topic is present from a successful createTopic() to a successful
 * removeTopic().
 *
 * Threads: every operation may be called from any thread and from inside a callback. No lock is
 * held while a topic is made or the host is told, so the host may hear in either order of two
 * changes of one topic that two threads make at once.
 */
class VESK_EXPORT VeskTopicManager {
public:
    VeskTopicManager();
    ~VeskTopicManager();
    VeskTopicManager(VeskTopicManager const&) = delete;
    VeskTopicManager& operator=(VeskTopicManager const&) = delete;

    /**
     * Creates the topic that the catalogue knows by this name and announces it.
     *
     * @return its id; 0, with nothing changed, when the name is unknown or the topic is present.
     */
    int createTopic(std::string const& name, bool isLocal, std::shared_ptr<VeskQueue> const& queue)
            VESK_EXCLUDES(mMutex);

    /**
     * Removes a topic and announces that. Its sessions are not told: they keep the topic alive, and
     * can send through it, until they are removed themselves.
     *
     * @return its id; 0, with nothing changed, when the name is unknown or the topic not present.
     */
    int removeTopic(std::string const& name) VESK_EXCLUDES(mMutex);

    bool hasTopic(uint16_t topicId) const VESK_EXCLUDES(mMutex);

    /** The topic with this id; null when it is not present. */
    std::shared_ptr<VeskTopic> getTopic(uint16_t topicId) const VESK_EXCLUDES(mMutex);

private:
    friend class Vesk;

    struct State;

    bool forget(uint16_t topicId) VESK_EXCLUDES(mMutex);
    /** Ends it: every topic lets go of its sessions, and none is created any more. */
    void close() VESK_EXCLUDES(mMutex);

    std::unordered_map<uint16_t, std::shared_ptr<VeskTopic>> mTopics VESK_GUARDED_BY(mMutex);
    mutable std::mutex mMutex;
    const std::unique_ptr<State> mState;  // guarded by mMutex too
};

}  // namespace vesk
