#include <vesk/VeskTopicManager.h>

#include <algorithm>
#include <utility>

#include <vesk/Vesk.h>

#include "core/DebugLog.h"

namespace vesk {

namespace {
constexpr char const* TAG = "VeskTopicManager";
}

int VeskTopicManager::createTopic(std::string const& name, bool isLocal,
                                  std::shared_ptr<VeskQueue> const& queue) {
    debugLog(TAG, "createTopic.", name);
    VeskConfig const& config = *Vesk::getInstance()->getConfig();
    int const id = config.getTopicIdByName(name);
    auto const key = static_cast<uint16_t>(id);
    if (id < 0 || !config.isTopicSupport(key) || hasTopic(key)) {
        return 0;
    }
    auto topic = std::make_shared<VeskTopic>(key, isLocal, queue);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mTopics.try_emplace(key, std::move(topic)).second) return 0;
    }
    Vesk::getInstance()->notifyTopicChanged(true, name);
    return id;
}

int VeskTopicManager::removeTopic(std::string const& name) {
    debugLog(TAG, "removeTopic.", name);
    int const id = Vesk::getInstance()->getConfig()->getTopicIdByName(name);
    if (id < 0) {
        return 0;
    }
    if (!forget(static_cast<uint16_t>(id))) {
        return 0;
    }
    Vesk::getInstance()->notifyTopicChanged(false, name);
    return id;
}

bool VeskTopicManager::forget(uint16_t topicId) {
    decltype(mTopics)::node_type removed;  // released after the lock, with all that it may own
    std::lock_guard<std::mutex> lock(mMutex);
    removed = mTopics.extract(topicId);
    if (removed.empty()) {
        return false;
    }
    auto const gone = [](std::weak_ptr<VeskTopic> const& earlier) { return earlier.expired(); };
    mRemoved.erase(std::remove_if(mRemoved.begin(), mRemoved.end(), gone), mRemoved.end());
    mRemoved.push_back(removed.mapped());
    return true;
}

bool VeskTopicManager::hasTopic(uint16_t topicId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mTopics.count(topicId) != 0;
}

std::shared_ptr<VeskTopic> VeskTopicManager::getTopic(uint16_t topicId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    auto const found = mTopics.find(topicId);
    return found == mTopics.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<VeskTopic>> VeskTopicManager::everyTopic() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::shared_ptr<VeskTopic>> all;
    for (auto const& entry : mTopics) {
        all.push_back(entry.second);
    }
    for (auto const& removed : mRemoved) {
        if (auto topic = removed.lock()) all.push_back(std::move(topic));
    }
    return all;
}

}  // namespace vesk
