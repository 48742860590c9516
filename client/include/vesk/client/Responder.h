#pragma once

#include <memory>

#include <vesk/VeskExport.h>
#include <vesk/client/ClientProtocol.h>

namespace vesk::client {

/**
 * Answers one request that a Client serves, once: inside the handler, or later from any thread.
 * Copies answer the same request. One that is never used leaves the request without a reply.
 */
class VESK_EXPORT Responder {
public:
    class Target;

    explicit Responder(std::shared_ptr<Target> target);

    /** The session that asked, and its message id. */
    uint16_t session() const;
    uint16_t msgId() const;

    /**
     * Sends the reply. Throws std::invalid_argument where it has more than 65,535 bytes; then the
     * request may still be answered.
     *
     * @return false where the request has been answered already, or the connection that it came
     *         through is gone.
     */
    bool reply(Bytes const& payload) const;

private:
    std::shared_ptr<Target> mTarget;
};

}  // namespace vesk::client
