#include <vesk/VeskSessionManager.h>

#include <vesk/Vesk.h>

#include "core/DebugLog.h"
#include "session/SessionRegistry.h"

namespace vesk {

namespace {

using Turn = SessionRegistry::Turn;

constexpr char const* TAG = "VeskSessionManager";

void announceRemoval(VeskSession const& session) {
    VeskConfig const& config = *Vesk::getInstance()->getConfig();
    Vesk::getInstance()->notifyBusinessChanged(
            false, config.getTopicIdById(session.topicId()),
            config.getBussinessIdById(session.topicId(), session.businessId()));
}

}  // namespace

VeskSessionManager::VeskSessionManager() : mRegistry(std::make_unique<SessionRegistry>(*this)) {}

// Nothing is taken out of a topic or announced at the end.
VeskSessionManager::~VeskSessionManager() {
    close();
}

void VeskSessionManager::close() {
    mRegistry->close();
}

int VeskSessionManager::makeSessionId() {
    return mRegistry->hold();
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
    SessionKey const key{type, static_cast<uint32_t>(clientId), desc->topicId, desc->businessId,
                         flag};
    auto const [entry, id] = mRegistry->reserve(key);
    // To provide the same once more is no error: the client gets the session that it has.
    if (!entry && id > 0) {
        debugLog(TAG, "provider has exist:", id);
        return id;
    }
    if (!entry || !join(entry, topicName, businessName)) {
        debugLog(TAG, "createSession:", CREATE_FAILED, "; topic:", topicName);
        return CREATE_FAILED;
    }
    debugLog(TAG, "createSession:", id, "; topic:", topicName);
    return id;
}

bool VeskSessionManager::join(std::shared_ptr<SessionEntry> const& entry,
                              std::string const& topicName, std::string const& businessName) {
    SessionKey const& key = entry->key;
    auto const session = std::make_shared<VeskSession>(entry->id, key.flag, key.type, key.clientId,
                                                       key.topicId, key.businessId, std::string());
    if (!mRegistry->admit(session, entry)) {
        return false;
    }
    if (key.type == PROVIDER) {
        Vesk::getInstance()->notifyBusinessChanged(true, topicName, businessName);
    }
    // Another call, of this callback or of another thread, may have removed the session by now. A
    // provider that was removed by its id goes on into its topic, as it would have stayed there.
    auto const topic = session->getTopic();
    topic->enter(session, key.type == PROVIDER);
    if (!mRegistry->staysInTopic(session)) topic->leave(*session);
    return true;
}

std::shared_ptr<VeskSession> VeskSessionManager::getSession(uint16_t sessionId) const {
    return mRegistry->find(sessionId);
}

size_t VeskSessionManager::removeSession(uint16_t sessionId) {
    auto const [session, turn] = mRegistry->beginRemoval(sessionId);
    if (!session) {
        return 0;
    }
    // A provider stays in its topic, which goes on routing to it: the end of its client takes it
    // out.
    if (session->type() == CONSUMER) {
        session->getTopic()->leave(*session);
    } else if (turn == Turn::FIRST) {
        announceRemoval(*session);
    }
    return mRegistry->endRemoval(session) ? 1 : 0;
}

int VeskSessionManager::removeSessionByClient(uint32_t clientId) {
    debugLog(TAG, "remove session done :", removeAllOf(CONSUMER, clientId));
    debugLog(TAG, "remove providerSessions done:", removeAllOf(PROVIDER, clientId));
    return 0;
}

size_t VeskSessionManager::removeAllOf(int type, uint32_t clientId) {
    // A copy of the list: the announcements call the host, which may create and remove sessions.
    for (auto const& session : mRegistry->sessionsOf(type, clientId)) {
        Turn const turn = mRegistry->beginRemoval(session);
        if (turn == Turn::LATE) continue;
        session->getTopic()->leave(*session);
        if (type == PROVIDER && turn == Turn::FIRST) announceRemoval(*session);
        mRegistry->endRemoval(session);
    }
    return mRegistry->count(type);
}

}  // namespace vesk
