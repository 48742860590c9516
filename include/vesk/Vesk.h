#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <utils/StrongPointer.h>
#include <vesk/VeskCallback.h>
#include <vesk/VeskConfig.h>
#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>
#include <vesk/VeskSession.h>
#include <vesk/VeskSessionManager.h>
#include <vesk/VeskThreadAnnotations.h>
#include <vesk/VeskTopic.h>
#include <vesk/VeskTopicManager.h>

namespace vesk {

/**
 * The one object of the process through which a host drives the library.
 *
 * A host, in this order: getInstance(); init() with its callback; createTopic() for each topic it
 * serves; sessions for its clients through getSessionManager(); then every frame that it reads from
 * the channel goes to getQueue()->receiveFromChannel(), and the callback gets the bytes to write.
 *
 * Ownership: the facade owns the queue, both managers and the catalogue for the life of the
 *            process. Pointers that it returns stay its own, and valid until the process is gone.
 * Threads:   every operation may be called from any thread and from inside a callback. Install the
 *            callback before traffic starts: until then bytes, frames and notifications are lost.
 * The end:   the instance ends at process exit, as a static object does: after those that were made
 *            later, before those that were made earlier. It first stops the queue, which waits for
 *            a sendToChannel() that the looper is just in; one that never returns is the only thing
 *            that can hold the exit. Then sessions, topics, packets and at last the callback are
 *            let go of, and nothing is announced. What is left refuses, and is safe to call for as
 *            long as the process lasts, by threads that were not stopped and in destructors of
 *            static objects and of the callback: nothing is created, found, sent or delivered, and
 *            init() installs nothing. exit() may be called inside any callback. A VeskQueue of the
 *            host's own must have been stopped before.
 * fork():    a child has neither the looper nor the threads that may have held a lock. It may call
 *            exit(), which leaves the copied instance alone, or an exec function, and nothing else
 *            of the library; nor may destructors that run in its exit(). A child that is made
 *            before the first getInstance() is free.
 */
class VESK_EXPORT Vesk {
public:
    /**
     * The process-wide instance, made by the first call; never null. That call throws
     * std::system_error where no thread can be started.
     */
    static Vesk* getInstance();

    /** For getInstance() alone: sessions, topics and queues ask that instance, and no other. */
    Vesk();
    ~Vesk();
    Vesk(Vesk const&) = delete;
    Vesk& operator=(Vesk const&) = delete;

    /**
     * Installs the host's callback in place of an earlier one. Null is ignored. A call that is
     * under way on another thread may still reach the earlier callback, which lives until then; it
     * is let go of with no lock held, so that its destructor may call the library.
     */
    void init(android::sp<VeskCallback> callback) VESK_EXCLUDES(mCallbackMutex);

    VeskConfig* getConfig();
    VeskSessionManager* getSessionManager();
    VeskTopicManager* getTopicManager();

    /** The queue; the caller becomes one more owner. */
    std::shared_ptr<VeskQueue> getQueue();

    /** Hands bytes to the callback's sendToChannel(). Called by the queue's looper. */
    void sendToChannel(std::vector<uint8_t> bytes);

    /**
     * The host's word on its channel. false: whatever waits to be sent, to be acknowledged or to be
     * acknowledged to the peer is dropped, and the counters are reset. true: nothing happens.
     */
    void onChannelAvailable(bool available);

    /** Creates a topic by its catalogue name. See VeskTopicManager::createTopic(). */
    int createTopic(std::string const& name, bool isLocal);

    /** Removes a topic by its catalogue name. See VeskTopicManager::removeTopic(). */
    int removeTopic(std::string const& name);

    /** Whether the topic that the catalogue knows by this name is present. */
    bool hasTopic(std::string const& name);
    bool hasTopic(uint16_t topicId);

    /** The topic with this id; null when it is not present. */
    std::shared_ptr<VeskTopic> getTopic(uint16_t topicId);

    /** Hands a frame to the callback's receive() on the caller's thread. A null one is ignored. */
    void receive(uint32_t clientId, uint32_t sessionId, bool local,
                 std::shared_ptr<VeskFrame> const& frame);

    /** Hands the news to the callback's notifyTopicChanged(). */
    void notifyTopicChanged(bool added, std::string topicName);

    /** Hands the news to the callback's notifyBusinessChanged(). */
    void notifyBusinessChanged(bool added, std::string topicName, std::string businessName);

private:
    struct Lifetime;

    /** Stops the queue and lets go of everything, and leaves an instance that refuses. */
    void end() VESK_EXCLUDES(mCallbackMutex);
    std::shared_ptr<VeskCallback> callback() const VESK_EXCLUDES(mCallbackMutex);

    // Its deleter has the library's one reference. It is cheaper to copy than an sp, and every
    // frame takes a copy.
    std::shared_ptr<VeskCallback> mCallback VESK_GUARDED_BY(mCallbackMutex);
    std::shared_ptr<VeskQueue> mQueue;
    VeskTopicManager mTopicManager;
    VeskSessionManager mSessionManager;
    VeskConfig mConfig;
    mutable std::mutex mCallbackMutex;
    const pid_t mProcess;  // that made the instance, and alone may end it
    bool mEnded VESK_GUARDED_BY(mCallbackMutex) = false;
};

}  // namespace vesk
