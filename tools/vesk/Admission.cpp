#include "Admission.h"

namespace vesk::tool {

bool Admission::open() const {
    if (!mChannel.up()) return false;
    // In this order: a frame moves from pending to awaiting, so none is counted too little.
    size_t const pending = static_cast<size_t>(mQueue.size());
    return pending < MAX_PENDING && pending + mQueue.awaitingAck() < MAX_IN_FLIGHT &&
           mChannel.backlog() < MAX_BACKLOG;
}

}  // namespace vesk::tool
