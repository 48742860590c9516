#include "HostCallback.h"

#include <utility>

namespace vesk::hostkit {

void HostCallback::detach() {
    mClients = nullptr;
    mGate.close();
}

void HostCallback::receive(uint32_t clientId, uint32_t sessionId, bool local,
                           std::shared_ptr<VeskFrame> const& frame) {
    if (!mClients) return;
    mTraffic.delivered(*frame, local);
    mClients->deliver(clientId, sessionId, *frame);
}

void HostCallback::sendToChannel(std::vector<uint8_t> bytes) {
    CallGate::Call const call(mGate);
    if (!call.isLet()) return;
    mTraffic.out(bytes);
    mTap.out(bytes);
    mChannel.write(std::move(bytes));
}

void HostCallback::notifyTopicChanged(bool added, std::string topicName) {
    if (mClients) mClients->topicChanged(added, topicName);
}

void HostCallback::notifyBusinessChanged(bool added, std::string topicName,
                                         std::string businessName) {
    if (mClients) mClients->providerChanged(added, topicName, businessName);
}

}  // namespace vesk::hostkit
