#include <vesk/testkit/RecordingCallback.h>

#include <utility>

namespace vesk::testkit {

namespace {

using Guard = std::lock_guard<std::mutex>;

template <typename T>
T replace(std::mutex& mutex, T& member, T value) {
    Guard const guard(mutex);
    return std::exchange(member, std::move(value));  // the old hook dies outside the lock
}

template <typename T>
T copy(std::mutex& mutex, T const& member) {
    Guard const guard(mutex);
    return member;
}

}  // namespace

void RecordingCallback::onSend(SendHook hook) {
    replace(mMutex, mSendHook, std::move(hook));
}

void RecordingCallback::onReceive(ReceiveHook hook) {
    replace(mMutex, mReceiveHook, std::move(hook));
}

void RecordingCallback::onTopicChange(TopicHook hook) {
    replace(mMutex, mTopicHook, std::move(hook));
}

void RecordingCallback::onBusinessChange(BusinessHook hook) {
    replace(mMutex, mBusinessHook, std::move(hook));
}

std::vector<RecordingCallback::Bytes> RecordingCallback::sent() const {
    return copy(mMutex, mSent);
}

std::vector<RecordingCallback::Delivery> RecordingCallback::deliveries() const {
    return copy(mMutex, mDeliveries);
}

std::vector<RecordingCallback::TopicChange> RecordingCallback::topicChanges() const {
    return copy(mMutex, mTopicChanges);
}

std::vector<RecordingCallback::BusinessChange> RecordingCallback::businessChanges() const {
    return copy(mMutex, mBusinessChanges);
}

size_t RecordingCallback::sentCount() const {
    Guard const guard(mMutex);
    return mSent.size();
}

bool RecordingCallback::waitForSent(size_t count, std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(mMutex);
    return mRecorded.wait_for(lock, deadline, [&] { return mSent.size() >= count; });
}

bool RecordingCallback::waitForDeliveries(size_t count, std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(mMutex);
    return mRecorded.wait_for(lock, deadline, [&] { return mDeliveries.size() >= count; });
}

bool RecordingCallback::waitUntil(std::function<bool()> const& condition,
                                  std::chrono::milliseconds deadline) const {
    auto const end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        // Counted before the question is asked, so that a call that comes in between is not missed.
        uint64_t const asked = copy(mMutex, mCalls);
        if (condition()) return true;
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mRecorded.wait_until(lock, end, [&] { return mCalls != asked; })) return false;
    }
}

void RecordingCallback::clear() {
    Guard const guard(mMutex);
    mSent.clear();
    mDeliveries.clear();
    mTopicChanges.clear();
    mBusinessChanges.clear();
}

template <typename Entry>
void RecordingCallback::record(std::vector<Entry>& list,
                               std::function<void(Entry const&)> const& hook, Entry const& entry) {
    std::function<void(Entry const&)> run;
    {
        Guard const guard(mMutex);
        list.push_back(entry);
        ++mCalls;
        run = hook;
    }
    mRecorded.notify_all();
    if (run) run(entry);
}

void RecordingCallback::receive(uint32_t clientId, uint32_t sessionId, bool local,
                                std::shared_ptr<VeskFrame> const& frame) {
    record(mDeliveries, mReceiveHook, Delivery{clientId, sessionId, local, frame});
}

void RecordingCallback::sendToChannel(Bytes bytes) {
    record(mSent, mSendHook, bytes);
}

void RecordingCallback::notifyTopicChanged(bool added, std::string topicName) {
    record(mTopicChanges, mTopicHook, TopicChange{added, topicName});
}

void RecordingCallback::notifyBusinessChanged(bool added, std::string topicName,
                                              std::string businessName) {
    record(mBusinessChanges, mBusinessHook, BusinessChange{added, topicName, businessName});
}

}  // namespace vesk::testkit
