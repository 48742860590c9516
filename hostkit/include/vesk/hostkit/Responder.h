#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/VeskFrame.h>

namespace vesk::hostkit {

/**
 * Answers one request, once. Made from the request where it is delivered, and kept, copied or
 * handed to another thread until the answer is known; it does not keep the request's payload.
 *
 * Threads: reply() and answered() may be called from any thread, on one object or on copies of it:
 *          of several answers to a request the first one counts.
 */
class VESK_EXPORT Responder {
public:
    /** @param request the frame that VeskCallback::receive() has brought. */
    explicit Responder(VeskFrame const& request);

    /**
     * Makes the reply, to be sent with VeskSession::send() of the provider's session: to the
     * session that asked, with the request's msgId and a serial number of its own.
     *
     * @return null, which VeskSession::send() ignores, when the request has been answered already,
     *         when the frame was no request, and when the payload is longer than 65,535 bytes; the
     *         request may then still be answered.
     */
    std::shared_ptr<VeskFrame> reply(std::vector<uint8_t> payload);

    /**
     * Makes the reply and sends it to the peer through the provider's session.
     *
     * @param sessionId the session that the request was delivered to; nothing leaves without it.
     * @return whether a reply was made.
     */
    bool send(uint32_t sessionId, std::vector<uint8_t> payload);

    /** Whether a reply has been made. */
    bool answered() const { return *mAnswered; }

private:
    VeskFrame mHeader;  // of the reply, without serial number
    bool mIsRequest;
    std::shared_ptr<std::atomic<bool>> mAnswered;  // shared with the copies
};

}  // namespace vesk::hostkit
