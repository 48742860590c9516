#include <vesk/Vesk.h>

#include <unistd.h>

#include <cstddef>
#include <new>
#include <utility>

namespace vesk {

namespace {

// The instance's memory outlives every destructor of the process: until the very end a callback's
// destructor, a host's global or a thread that nobody has stopped may call the library.
alignas(Vesk) std::byte gStorage[sizeof(Vesk)];

}  // namespace

/** The one instance from its first use to the process's exit; what it leaves behind refuses. */
struct Vesk::Lifetime {
    Lifetime() { new (gStorage) Vesk; }
    ~Lifetime() { std::launder(reinterpret_cast<Vesk*>(gStorage))->end(); }
};

Vesk* Vesk::getInstance() {
    static Lifetime const lifetime;
    return std::launder(reinterpret_cast<Vesk*>(gStorage));
}

Vesk::Vesk() : mProcess(getpid()) {
    mQueue = std::make_shared<VeskQueue>();
}

Vesk::~Vesk() {
    end();
}

void Vesk::end() {
    // A child made by fork() has no looper to wait for, and threads that it does not have may have
    // held any lock. What it has a copy of is the parent's to end.
    if (getpid() != mProcess) {
        return;
    }
    mQueue->stop();  // the looper ends before anything that it calls
    mSessionManager.close();
    mTopicManager.close();
    mQueue->cleanup();
    std::shared_ptr<VeskCallback> last;  // released after the lock, and may still call
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    mEnded = true;
    last.swap(mCallback);
}

void Vesk::init(android::sp<VeskCallback> callback) {
    if (callback == nullptr) {
        return;
    }
    VeskCallback* const host = callback.get();
    std::shared_ptr<VeskCallback> installed(host, [own = std::move(callback)](VeskCallback*) {});
    // What is swapped out is released after the lock: the destructor of an earlier callback is the
    // host's.
    std::lock_guard<std::mutex> lock(mCallbackMutex);
    if (!mEnded) mCallback.swap(installed);
}

std::shared_ptr<VeskCallback> Vesk::callback() const {
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
    // A channel that comes back finds an empty queue: what was lost with it is not sent again.
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
