#include <vesk/VeskTopicManager.h>

#include <algorithm>
#include <utility>
#include <vector>

#include <vesk/Vesk.h>

#include "core/DebugLog.h"

namespace vesk {

namespace {
constexpr char const* TAG = "VeskTopicManager";
}

struct VeskTopicManager::State {
    /** Keeps track of a removed topic for as long as its sessions keep it alive. */
    void remember(std::shared_ptr<VeskTopic> const& topic) {
        if (removed.size() == pruneAt) {
            auto const gone = [](auto const& earlier) { return earlier.expired(); };
            removed.erase(std::remove_if(removed.begin(), removed.end(), gone), removed.end());
            // Only a list that has doubled is gone through again, so that a removal takes as long
            // with many topics alive as with few.
            pruneAt = 2 * removed.size() + 1;
        }
        removed.push_back(topic);
    }

    std::vector<std::weak_ptr<VeskTopic>> removed;
    size_t pruneAt = 1;
    bool closed = false;
};

VeskTopicManager::VeskTopicManager() : mState(std::make_unique<State>()) {}

VeskTopicManager::~VeskTopicManager() = default;

int VeskTopicManager::createTopic(std::string const& name, bool isLocal,
                                  std::shared_ptr<VeskQueue> const& queue) {
    debugLog(TAG, "createTopic.", name);
    VeskConfig const& config = *Vesk::getInstance()->getConfig();
    int const id = config.getTopicIdByName(name);
    auto const key = static_cast<uint16_t>(id);
    if (id < 0 || !config.isTopicSupport(key) || hasTopic(key)) {
        return 0;
    }
    // Made before the lock is taken, which is for the table alone. Where another thread was
    // quicker, its topic stays and this one goes.
    auto topic = std::make_shared<VeskTopic>(key, isLocal, queue);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState->closed || !mTopics.try_emplace(key, std::move(topic)).second) return 0;
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
    mState->remember(removed.mapped());
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

void VeskTopicManager::close() {
    std::vector<std::shared_ptr<VeskTopic>> topics;  // emptied, and released, without the lock
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mState->closed = true;
        for (auto& [id, topic] : mTopics) {
            topics.push_back(std::move(topic));
        }
        mTopics.clear();
        for (auto const& removed : mState->removed) {
            if (auto topic = removed.lock()) topics.push_back(std::move(topic));
        }
    }
    // Topics and sessions own each other: without the cut they, and the queue with them, would
    // stay.
    for (auto const& topic : topics) {
        topic->dropSessions();
    }
}

}  // namespace vesk
