#include <vesk/VeskTopic.h>

#include <algorithm>
#include <utility>

#include <vesk/VeskFrame.h>
#include <vesk/VeskProtocol.h>
#include <vesk/VeskQueue.h>
#include <vesk/VeskSession.h>

#include "core/DebugLog.h"

namespace vesk {

VeskTopic::VeskTopic(uint16_t topicId, bool isLocal, std::shared_ptr<VeskQueue> const& queue)
    : TAG("[" + std::to_string(topicId) + "]"),
      mTopicId(topicId),
      mIsLocal(isLocal),
      mQueue(queue) {
    debugLog(TAG.c_str(), "create.");
}

VeskTopic::~VeskTopic() = default;

void VeskTopic::addSession(uint16_t sessionId, bool isProvider,
                           std::shared_ptr<VeskSession> session) {
    if (session) put(sessionId, isProvider, session, nullptr);
}

void VeskTopic::enter(std::shared_ptr<VeskSession> const& session, bool isProvider) {
    put(session->sessionId(), isProvider, session, session.get());
}

void VeskTopic::put(uint16_t sessionId, bool isProvider,
                    std::shared_ptr<VeskSession> const& session, VeskSession const* late) {
    debugLog(TAG.c_str(), "addSession:", sessionId, ";business:", session->businessId());
    std::shared_ptr<VeskSession> provider = session;  // then what was in its place,
    std::shared_ptr<VeskSession> consumer = session;  // to be released after the lock
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (isProvider && !isTaken(mProviders, sessionId, late)) {
            mProviders[sessionId].swap(provider);
        }
        if (!isTaken(mConsumers, sessionId, late)) mConsumers[sessionId].swap(consumer);
        mHasOtherKeys = mHasOtherKeys || session->sessionId() != sessionId;
    }
}

void VeskTopic::removeSession(uint16_t sessionId) {
    takeOut(sessionId, nullptr);
}

void VeskTopic::leave(VeskSession const& session) {
    takeOut(session.sessionId(), &session);
}

void VeskTopic::takeOut(uint16_t sessionId, VeskSession const* late) {
    SessionTable::node_type provider, consumer;  // released after the lock
    size_t providers = 0, consumers = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!isTaken(mProviders, sessionId, late)) provider = mProviders.extract(sessionId);
        if (!isTaken(mConsumers, sessionId, late)) consumer = mConsumers.extract(sessionId);
        providers = mProviders.size();
        consumers = mConsumers.size();
    }
    debugLog(TAG.c_str(), "mProviders:", providers, "mConsumers:", consumers);
}

bool VeskTopic::isTaken(SessionTable const& table, uint16_t sessionId, VeskSession const* late) {
    auto const found = table.find(sessionId);
    return late && found != table.end() && found->second->hasSucceeded(*late);
}

int VeskTopic::calPriority(int value) const {
    switch (value) {
        case 1:
        case 2:
        case 5:
        case 6:
            return 3;
        default:
            return 2;
    }
}

void VeskTopic::publish(bool local, std::shared_ptr<VeskFrame> frame, int /*priority*/) {
    if (mIsLocal && !local) {
        debugLog(TAG.c_str(), "publish fail for local!");
    } else if (local) {
        receive(true, std::move(frame));
    } else if (frame && mQueue) {
        mQueue->enqueue(1, true, std::move(frame));
    }
}

void VeskTopic::receive(bool local, std::shared_ptr<VeskFrame> frame) {
    if (!frame) {
        return;
    }
    // The session is called without the lock: the host may change the topic's sessions in there.
    std::shared_ptr<VeskSession> session;
    if (frame->msgType == REQUEST) {
        session = findProvider(frame->businessId);
    } else if (frame->msgType == REPLY) {
        session = findConsumer(frame->businessId, frame->reply);
    }
    if (session) {
        session->receive(local, frame);
    }
}

std::shared_ptr<VeskSession> VeskTopic::findProvider(uint16_t businessId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto const& entry : mProviders) {
        if (entry.second->businessId() == businessId) return entry.second;
    }
    return nullptr;
}

std::shared_ptr<VeskSession> VeskTopic::findConsumer(uint16_t businessId,
                                                     uint16_t sessionId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    auto const fits = [=](auto const& entry) {
        return entry.second->businessId() == businessId && entry.second->sessionId() == sessionId;
    };
    // A host may enter a session under another number than its own; only then all are looked at.
    auto found = mConsumers.find(sessionId);
    if (mHasOtherKeys && (found == mConsumers.end() || !fits(*found))) {
        found = std::find_if(mConsumers.begin(), mConsumers.end(), fits);
    }
    return found != mConsumers.end() && fits(*found) ? found->second : nullptr;
}

void VeskTopic::dropSessions() {
    SessionTable providers, consumers;  // released after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    providers.swap(mProviders);
    consumers.swap(mConsumers);
}

}  // namespace vesk
