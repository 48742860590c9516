#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <utils/RefBase.h>
#include <vesk/VeskExport.h>

namespace vesk {

class VeskFrame;

/**
 * What the library asks of its host: implement it and install it with Vesk::init().
 *
 * Ownership: held by android::sp<>; the library keeps one reference until the process ends or
 *            another callback is installed. Its destructor may call the library, at exit too.
 * Threads:   no lock of the library is held during any of these calls, so each may make any call of
 *            the library, but for VeskQueue's that are marked "looper only", and may call exit().
 *            Several may run at once on different threads.
 * Waiting:   a call that waits holds back what its thread does. A reply that is waited for inside
 *            receive() on the thread that reads the channel never comes, for nobody reads it; nor
 *            does anything leave while sendToChannel() waits. Send, return, and go on when the
 *            reply is received.
 * Failure:   none is reported back; do not let an exception leave an implementation.
 *
 * The order of the operations is part of the binary interface and never changes.
 */
class VESK_EXPORT VeskCallback : public android::RefBase {
public:
    /**
     * A frame for one local session. Runs on the thread that called receiveFromChannel() or, for a
     * frame looped back inside this process, on the sender's thread. The session may have been
     * removed by another thread meanwhile: a frame that was on its way is still delivered.
     *
     * @param clientId  the client that owns the session, as given to createSession().
     * @param sessionId the session that the frame is meant for.
     * @param local     true: looped back inside this process. false: it came from the channel.
     * @param frame     the very frame that was routed; shared, not a copy.
     */
    virtual void receive(uint32_t clientId, uint32_t sessionId, bool local,
                         std::shared_ptr<VeskFrame> const& frame) = 0;

    /**
     * One whole frame to write to the byte channel. Runs on the facade's queue's looper thread, one
     * call at a time and in the order in which the bytes must leave. A call that blocks holds back
     * every other outgoing frame; one that never returns keeps the process from ending. A VeskQueue
     * of the host's own calls it on its own looper thread, beside this one.
     */
    virtual void sendToChannel(std::vector<uint8_t> bytes) = 0;

    /**
     * A topic was created, and is present, or removed, and is not. Runs on the thread that did it,
     * before that call returns.
     */
    virtual void notifyTopicChanged(bool added, std::string topicName) = 0;

    /**
     * A provider session was created or removed. Runs on the thread that did it, before that call
     * returns. VeskSessionManager::getSession() finds the session in both cases; a new one is not
     * routed to until this returns, and one that is removed has given its id back.
     */
    virtual void notifyBusinessChanged(bool added, std::string topicName,
                                       std::string businessName) = 0;

protected:
    ~VeskCallback() override;
};

}  // namespace vesk
