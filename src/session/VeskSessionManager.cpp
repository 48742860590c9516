#include <vesk/VeskSessionManager.h>

#include <utility>

#include <vesk/Vesk.h>

#include "core/DebugLog.h"

namespace vesk {

namespace {

constexpr char const* TAG = "VeskSessionManager";
constexpr uint16_t ID_LIMIT = 0xFFFF;  // never handed out

void announceRemoval(VeskSession const& session) {
    VeskConfig const& config = *Vesk::getInstance()->getConfig();
    Vesk::getInstance()->notifyBusinessChanged(
            false, config.getTopicIdById(session.topicId()),
            config.getBussinessIdById(session.topicId(), session.businessId()));
}

}  // namespace

// The tables let go of their sessions, consumers first; nothing is taken out of a topic or
// announced at the end.
VeskSessionManager::~VeskSessionManager() {
    mConsumerSessions.clear();
}

int VeskSessionManager::makeSessionId() {
    std::lock_guard<std::mutex> lock(mMutex);
    return allocateId();
}

int VeskSessionManager::allocateId() {
    uint16_t id = mNextId;
    if (!mFreedIds.empty()) {
        id = *mFreedIds.begin();
        mFreedIds.erase(mFreedIds.begin());
    } else if (mNextId == ID_LIMIT) {
        return -1;
    } else {
        ++mNextId;
    }
    mSessionIds.insert(id);
    return id;
}

void VeskSessionManager::freeId(uint16_t sessionId) {
    if (mSessionIds.erase(sessionId) != 0) {
        mFreedIds.insert(sessionId);
    }
}

std::shared_ptr<VeskSessionManager::VeskSessionDesc> VeskSessionManager::getSessionDesc(
        std::string const& topicName, std::string const& businessName) const {
    debugLog(TAG, "getSessionDesc:", topicName.size(), "; topic:", topicName);
    if (topicName.empty()) {
        return nullptr;
    }
    Vesk* const facade = Vesk::getInstance();
    VeskConfig const& config = *facade->getConfig();
    int const topicId = config.getTopicIdByName(topicName);
    if (topicId < 0 || !facade->getTopicManager()->getTopic(static_cast<uint16_t>(topicId))) {
        return nullptr;
    }
    int const businessId = config.getBussinessIdByName(topicId, businessName);
    auto desc = std::make_shared<VeskSessionDesc>();
    desc->topicId = static_cast<uint16_t>(topicId);
    desc->businessId = static_cast<uint16_t>(businessId);
    bool const usable =
            businessId >= 1 && config.isBussinessSupport(desc->topicId, desc->businessId);
    return usable ? desc : nullptr;
}

int VeskSessionManager::createSession(int clientId, int type, std::string const& topicName,
                                      std::string const& businessName, bool flag) {
    debugLog(TAG, "createSession:", topicName, ";in_bussiness:", businessName);
    if (type != CONSUMER && type != PROVIDER) {
        debugLog(TAG, "createSession:", CREATE_FAILED, "; topic:", topicName);
        return CREATE_FAILED;
    }
    auto const desc = getSessionDesc(topicName, businessName);
    if (!desc) {
        debugLog(TAG, "getSessionDesc: null");
        return CREATE_FAILED;
    }
    auto const client = static_cast<uint32_t>(clientId);
    std::shared_ptr<VeskSession> duplicate;
    int id = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (type == PROVIDER) duplicate = findDuplicate(client, *desc, flag);
        if (!duplicate) id = allocateId();
    }
    if (duplicate) {
        debugLog(TAG, "provider has exist:", duplicate->sessionId());
        return duplicate->sessionId();
    }
    if (id < 1) {
        debugLog(TAG, "createSession:", CREATE_FAILED, "; topic:", topicName);
        return CREATE_FAILED;
    }
    auto session = std::make_shared<VeskSession>(static_cast<uint16_t>(id), flag, type, client,
                                                 desc->topicId, desc->businessId, std::string());
    admit(session, topicName, businessName);
    debugLog(TAG, "createSession:", id, "; topic:", topicName);
    return id;
}

void VeskSessionManager::admit(std::shared_ptr<VeskSession> const& session,
                               std::string const& topicName, std::string const& businessName) {
    bool const isProvider = session->type() == PROVIDER;
    std::shared_ptr<VeskSession> earlier;  // of the same id, still being removed; released unlocked
    {
        std::lock_guard<std::mutex> lock(mMutex);
        SessionTable& table = isProvider ? mProviderSessions : mConsumerSessions;
        earlier = std::exchange(table[session->sessionId()], session);
    }
    if (isProvider) {
        Vesk::getInstance()->notifyBusinessChanged(true, topicName, businessName);
        std::lock_guard<std::mutex> lock(mMutex);
        if (find(PROVIDER, session->sessionId()) != session) return;  // removed by the callback
    }
    // The topic may have been removed by another thread since the names were resolved.
    if (auto const topic = session->getTopic()) {
        topic->addSession(session->sessionId(), isProvider, session);
    }
}

std::shared_ptr<VeskSession> VeskSessionManager::findDuplicate(uint32_t clientId,
                                                               VeskSessionDesc const& desc,
                                                               bool flag) const {
    for (auto const& entry : mProviderSessions) {
        VeskSession const& session = *entry.second;
        if (session.clientId() == clientId && session.topicId() == desc.topicId &&
            session.flag() == flag && session.businessId() == desc.businessId) {
            return entry.second;
        }
    }
    return nullptr;
}

std::shared_ptr<VeskSession> VeskSessionManager::getSession(uint16_t sessionId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    auto const provider = find(PROVIDER, sessionId);
    return provider ? provider : find(CONSUMER, sessionId);
}

size_t VeskSessionManager::removeSession(uint16_t sessionId) {
    std::shared_ptr<VeskSession> consumer, provider;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        freeId(sessionId);
        consumer = find(CONSUMER, sessionId);
        provider = find(PROVIDER, sessionId);
        if (provider && (!provider->getTopic() || !mLeaving.insert(provider.get()).second)) {
            provider = nullptr;  // not to be announced, or being announced as gone just now
        }
    }
    size_t removed = 0;
    if (consumer) {
        leaveTopic(*consumer);
        removed = forget(consumer);
    }
    if (provider) {
        announceRemoval(*provider);
        removed = forget(provider);
    }
    return removed;
}

int VeskSessionManager::removeSessionByClient(uint32_t clientId) {
    debugLog(TAG, "remove session done :", removeAllOf(CONSUMER, clientId));
    debugLog(TAG, "remove providerSessions done:", removeAllOf(PROVIDER, clientId));
    return 0;
}

size_t VeskSessionManager::removeAllOf(int type, uint32_t clientId) {
    for (auto const& session : sessionsOf(type, clientId)) {
        if (!release(session)) continue;  // a callback has removed it, or this is that callback
        if (type == PROVIDER) announceRemoval(*session);
        forget(session);
    }
    std::lock_guard<std::mutex> lock(mMutex);
    return tableOf(type).size();
}

std::vector<std::shared_ptr<VeskSession>> VeskSessionManager::sessionsOf(int type,
                                                                         uint32_t clientId) const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::shared_ptr<VeskSession>> found;
    for (auto const& entry : tableOf(type)) {
        if (entry.second->clientId() == clientId) found.push_back(entry.second);
    }
    return found;
}

bool VeskSessionManager::release(std::shared_ptr<VeskSession> const& session) {
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (find(session->type(), session->sessionId()) != session) return false;
        first = mLeaving.insert(session.get()).second;
        if (first) freeId(session->sessionId());
    }
    leaveTopic(*session);
    return first;
}

// By identity: the id is free, and another thread may have given it to a new session by now.
void VeskSessionManager::leaveTopic(VeskSession const& session) {
    if (auto const topic = session.getTopic()) topic->takeOut(session.sessionId(), &session);
}

size_t VeskSessionManager::forget(std::shared_ptr<VeskSession> const& session) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLeaving.erase(session.get());
    auto const present = find(session->type(), session->sessionId());
    // The id was freed before: a callback may have given it, and the place, to a new session.
    if (present == session) tableOf(session->type()).erase(session->sessionId());
    return present ? 1 : 0;
}

std::shared_ptr<VeskSession> VeskSessionManager::find(int type, uint16_t sessionId) const {
    SessionTable const& table = tableOf(type);
    auto const found = table.find(sessionId);
    return found == table.end() ? nullptr : found->second;
}

}  // namespace vesk
