#include <vesk/testkit/RecordingCallback.h>

namespace vesk::testkit {

namespace {

using Guard = std::lock_guard<std::mutex>;

}  // namespace

// The parameter takes the old hook, which so dies outside the lock.
void RecordingCallback::onSend(SendHook hook) {
    Guard const guard(mMutex);
    mSendHook.swap(hook);
}

void RecordingCallback::onReceive(ReceiveHook hook) {
    Guard const guard(mMutex);
    mReceiveHook.swap(hook);
}

void RecordingCallback::onTopicChange(TopicHook hook) {
    Guard const guard(mMutex);
    mTopicHook.swap(hook);
}

void RecordingCallback::onBusinessChange(BusinessHook hook) {
    Guard const guard(mMutex);
    mBusinessHook.swap(hook);
}

std::vector<RecordingCallback::Bytes> RecordingCallback::sent() const {
    Guard const guard(mMutex);
    return mSent;
}

std::vector<RecordingCallback::Delivery> RecordingCallback::deliveries() const {
    Guard const guard(mMutex);
    return mDeliveries;
}

std::vector<RecordingCallback::TopicChange> RecordingCallback::topicChanges() const {
    Guard const guard(mMutex);
    return mTopicChanges;
}

std::vector<RecordingCallback::BusinessChange> RecordingCallback::businessChanges() const {
    Guard const guard(mMutex);
    return mBusinessChanges;
}

size_t RecordingCallback::sentCount() const {
    Guard const guard(mMutex);
    return mSent.size();
}

size_t RecordingCallback::deliveryCount() const {
    Guard const guard(mMutex);
    return mDeliveries.size();
}

uint64_t RecordingCallback::calls() const {
    Guard const guard(mMutex);
    return mCalls;
}

bool RecordingCallback::waitForSent(size_t count, std::chrono::milliseconds deadline) const {
    return waitUntil([&] { return sentCount() >= count; }, deadline);
}

bool RecordingCallback::waitForDeliveries(size_t count, std::chrono::milliseconds deadline) const {
    return waitUntil([&] { return deliveryCount() >= count; }, deadline);
}

bool RecordingCallback::waitUntil(std::function<bool()> const& condition,
                                  std::chrono::milliseconds deadline) const {
    auto const end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        // Counted before the question is asked, so that a call that comes in between is not missed.
        uint64_t const asked = calls();
        if (condition()) return true;
        if (!waitForMoreCalls(asked, end)) return false;
    }
}

bool RecordingCallback::waitForMoreCalls(uint64_t than,
                                         std::chrono::steady_clock::time_point end) const {
    Guard const guard(mMutex);
    std::unique_lock<std::mutex> lock(mMutex, std::adopt_lock);
    while (mCalls == than && mRecorded.wait_until(lock, end) == std::cv_status::no_timeout) {
    }
    lock.release();  // guard unlocks
    return mCalls != than;
}

void RecordingCallback::clear() {
    std::vector<Delivery>
            deliveries;  // released after the lock: a frame's deleter may be the test's
    Guard const guard(mMutex);
    mSent.clear();
    mDeliveries.swap(deliveries);
    mTopicChanges.clear();
    mBusinessChanges.clear();
}

template <typename Entry>
void RecordingCallback::record(std::vector<Entry> RecordingCallback::*list,
                               std::function<void(Entry const&)> RecordingCallback::*hook,
                               Entry const& entry) {
    std::function<void(Entry const&)> run;
    {
        Guard const guard(mMutex);
        (this->*list).push_back(entry);
        ++mCalls;
        run = this->*hook;
    }
    mRecorded.notify_all();
    if (run) run(entry);
}

void RecordingCallback::receive(uint32_t clientId, uint32_t sessionId, bool local,
                                std::shared_ptr<VeskFrame> const& frame) {
    record(&RecordingCallback::mDeliveries, &RecordingCallback::mReceiveHook,
           Delivery{clientId, sessionId, local, frame});
}

void RecordingCallback::sendToChannel(Bytes bytes) {
    record(&RecordingCallback::mSent, &RecordingCallback::mSendHook, bytes);
}

void RecordingCallback::notifyTopicChanged(bool added, std::string topicName) {
    record(&RecordingCallback::mTopicChanges, &RecordingCallback::mTopicHook,
           TopicChange{added, topicName});
}

void RecordingCallback::notifyBusinessChanged(bool added, std::string topicName,
                                              std::string businessName) {
    record(&RecordingCallback::mBusinessChanges, &RecordingCallback::mBusinessHook,
           BusinessChange{added, topicName, businessName});
}

}  // namespace vesk::testkit
