#include <vesk/VeskSession.h>

#include <utility>

#include <vesk/Vesk.h>

#include "core/DebugLog.h"
#include "session/SessionEntry.h"

namespace vesk {

VeskSession::VeskSession(uint16_t sessionId, bool flag, int type, uint32_t clientId,
                         uint16_t topicId, uint16_t businessId, std::string name)
    : TAG("VeskSession"),
      mSessionId(sessionId),
      mClientId(clientId),
      mTopicId(topicId),
      mBusinessId(businessId),
      mFlag(flag),
      mType(type),
      mName(std::move(name)) {
    debugLog(TAG.c_str(), "create:", sessionId, ",topic:", topicId, ",bussiness:", businessId);
    TAG += "[" + std::to_string(sessionId) + "]";
    mTopic = Vesk::getInstance()->getTopicManager()->getTopic(topicId);
}

std::shared_ptr<VeskTopic> VeskSession::getTopic() const {
    return mTopic;
}

void VeskSession::send(bool local, std::shared_ptr<VeskFrame> const& frame, int priority) {
    if (mTopic) {
        mTopic->publish(local, frame, priority);
    }
}

void VeskSession::receive(bool local, std::shared_ptr<VeskFrame> const& frame) {
    Vesk::getInstance()->receive(mClientId, mSessionId, local, frame);
}

bool VeskSession::hasSucceeded(VeskSession const& other) const {
    return mEntry && mSessionId == other.mSessionId && mEntry->order > other.mEntry->order;
}

}  // namespace vesk
