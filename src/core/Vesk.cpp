#include <vesk/Vesk.h>

#include <utility>

namespace vesk {

Vesk* Vesk::getInstance() {
    static Vesk instance;
    return &instance;
}

Vesk::Vesk() {
    mQueue = std::make_shared<VeskQueue>();
}

Vesk::~Vesk() {
    // The looper ends before anything that it calls. Topics and sessions own each other: without
    // the cut they, and the queue with them, would outlive the process's last statement.
    mQueue->stop();
    for (auto const& topic : mTopicManager.everyTopic()) {
        topic->dropSessions();
    }
}

void Vesk::init(android::sp<VeskCallback> callback) {
    if (callback == nullptr) {
        return;
    }
    android::sp<VeskCallback> earlier;  // released after the lock: its destructor is the host's
    {
        std::lock_guard<std::mutex> lock(mCallbackMutex);
        earlier = std::exchange(mCallback, callback);
    }
}

android::sp<VeskCallback> Vesk::callback() const {
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    return mCallback;
}

VeskConfig* Vesk::getConfig() {
    return &mConfig;
}

VeskSessionManager* Vesk::getSessionManager() {
    return &mSessionManager;
}

VeskTopicManager* Vesk::getTopicManager() {
    return &mTopicManager;
}

std::shared_ptr<VeskQueue> Vesk::getQueue() {
    return mQueue;
}

void Vesk::sendToChannel(std::vector<uint8_t> bytes) {
    if (auto const host = callback(); host != nullptr) {
        host->sendToChannel(std::move(bytes));
    }
}

void Vesk::onChannelAvailable(bool available) {
    if (!available) {
        mQueue->cleanup();
    }
}

int Vesk::createTopic(std::string const& name, bool isLocal) {
    return mTopicManager.createTopic(name, isLocal, mQueue);
}

int Vesk::removeTopic(std::string const& name) {
    return mTopicManager.removeTopic(name);
}

bool Vesk::hasTopic(std::string const& name) {
    int const id = mConfig.getTopicIdByName(name);
    return id >= 1 && mTopicManager.hasTopic(static_cast<uint16_t>(id));
}

bool Vesk::hasTopic(uint16_t topicId) {
    return mTopicManager.hasTopic(topicId);
}

std::shared_ptr<VeskTopic> Vesk::getTopic(uint16_t topicId) {
    return mTopicManager.getTopic(topicId);
}

void Vesk::receive(uint32_t clientId, uint32_t sessionId, bool local,
                   std::shared_ptr<VeskFrame> const& frame) {
    if (!frame) {
        return;
    }
    if (auto const host = callback(); host != nullptr) {
        host->receive(clientId, sessionId, local, frame);
    }
}

void Vesk::notifyTopicChanged(bool added, std::string topicName) {
    if (auto const host = callback(); host != nullptr) {
        host->notifyTopicChanged(added, std::move(topicName));
    }
}

void Vesk::notifyBusinessChanged(bool added, std::string topicName, std::string businessName) {
    if (auto const host = callback(); host != nullptr) {
        host->notifyBusinessChanged(added, std::move(topicName), std::move(businessName));
    }
}

}  // namespace vesk
