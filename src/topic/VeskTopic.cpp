#include <vesk/VeskTopic.h>

#include <utility>

#include <vesk/VeskFrame.h>
#include <vesk/VeskProtocol.h>
#include <vesk/VeskQueue.h>
#include <vesk/VeskSession.h>

#include "core/DebugLog.h"

namespace vesk {

namespace {

/** Of any session with this id; with `only`, of no other than that one. */
template <typename Table>
auto extract(Table& table, uint16_t id, VeskSession const* only) {
    auto const found = table.find(id);
    bool const fits = found != table.end() && (!only || found->second.get() == only);
    return fits ? table.extract(found) : typename Table::node_type();
}

}  // namespace

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
    if (!session) {
        return;
    }
    debugLog(TAG.c_str(), "addSession:", sessionId, ";business:", session->businessId());
    std::shared_ptr<VeskSession> earlierProvider, earlierConsumer;  // released after the lock
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (isProvider) {
            earlierProvider = std::exchange(mProviders[sessionId], session);
        }
        earlierConsumer = std::exchange(mConsumers[sessionId], std::move(session));
    }
}

void VeskTopic::removeSession(uint16_t sessionId) {
    takeOut(sessionId, nullptr);
}

void VeskTopic::takeOut(uint16_t sessionId, VeskSession const* only) {
    SessionTable::node_type provider, consumer;  // released after the lock
    size_t providers = 0, consumers = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        // Every session stands in mConsumers. Where this one still does, another of its id can only
        // be an older provider that was left behind, and goes with it.
        auto const newest = mConsumers.find(sessionId);
        if (newest != mConsumers.end() && newest->second.get() == only) only = nullptr;
        provider = extract(mProviders, sessionId, only);
        consumer = extract(mConsumers, sessionId, only);
        providers = mProviders.size();
        consumers = mConsumers.size();
    }
    debugLog(TAG.c_str(), "mProviders:", providers, "mConsumers:", consumers);
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
    auto const found = mConsumers.find(sessionId);
    bool const fits = found != mConsumers.end() && found->second->businessId() == businessId &&
                      found->second->sessionId() == sessionId;
    return fits ? found->second : nullptr;
}

void VeskTopic::dropSessions() {
    SessionTable providers, consumers;  // released after the lock
    std::lock_guard<std::mutex> lock(mMutex);
    providers.swap(mProviders);
    consumers.swap(mConsumers);
}

}  // namespace vesk
