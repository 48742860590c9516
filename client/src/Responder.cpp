#include <vesk/client/Responder.h>

#include <stdexcept>
#include <utility>

#include "ResponderTarget.h"

namespace vesk::client {

Responder::Responder(std::shared_ptr<Target> target) : mTarget(std::move(target)) {}

uint16_t Responder::session() const {
    return mTarget->session();
}

uint16_t Responder::msgId() const {
    return mTarget->msgId();
}

bool Responder::reply(Bytes const& payload) const {
    DataMessage::checkSize(payload.size());
    return mTarget->reply(payload);
}

}  // namespace vesk::client
