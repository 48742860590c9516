#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vesk/VeskCallback.h>
#include <vesk/VeskThreadAnnotations.h>
#include <vesk/testkit/Await.h>

namespace vesk::testkit {

/**
 * A host that remembers everything it is told: install it with Vesk::init().
 *
 * Ownership: held by android::sp<>. Delivered frames are shared with the library, not copied.
 * Threads:   every operation may be called from any thread.
 * Hooks:     one per operation of the callback, called after the call has been recorded, on the
 *            calling thread and with no lock held: a hook may call the library, and this object.
 *            What a hook refers to must live until it is replaced and its last run is over.
 * Failure:   a wait that reaches its deadline (real time) returns false.
 */
class RecordingCallback : public VeskCallback {
public:
    using Bytes = std::vector<uint8_t>;

    struct Delivery {
        uint32_t clientId;
        uint32_t sessionId;
        bool local;
        std::shared_ptr<VeskFrame> frame;
    };

    struct TopicChange {
        bool added;
        std::string topicName;
    };

    struct BusinessChange {
        bool added;
        std::string topicName;
        std::string businessName;
    };

    using SendHook = std::function<void(Bytes const&)>;
    using ReceiveHook = std::function<void(Delivery const&)>;
    using TopicHook = std::function<void(TopicChange const&)>;
    using BusinessHook = std::function<void(BusinessChange const&)>;

    /** Replaces a hook; an empty function removes it. */
    void onSend(SendHook hook);
    void onReceive(ReceiveHook hook);
    void onTopicChange(TopicHook hook);
    void onBusinessChange(BusinessHook hook);

    /** Copies of what was recorded since the last clear(), oldest first. */
    std::vector<Bytes> sent() const;
    std::vector<Delivery> deliveries() const;
    std::vector<TopicChange> topicChanges() const;
    std::vector<BusinessChange> businessChanges() const;

    size_t sentCount() const;

    /** Waits until at least `count` calls of sendToChannel() are on record. */
    bool waitForSent(size_t count, std::chrono::milliseconds deadline = DEADLINE) const;

    /** Waits until at least `count` calls of receive() are on record. */
    bool waitForDeliveries(size_t count, std::chrono::milliseconds deadline = DEADLINE) const;

    /** Waits until `condition` holds; asks for it at once and after every call recorded. */
    bool waitUntil(std::function<bool()> const& condition,
                   std::chrono::milliseconds deadline = DEADLINE) const;

    /** Forgets what was recorded; the hooks stay. */
    void clear();

    void receive(uint32_t clientId, uint32_t sessionId, bool local,
                 std::shared_ptr<VeskFrame> const& frame) override;
    void sendToChannel(Bytes bytes) override;
    void notifyTopicChanged(bool added, std::string topicName) override;
    void notifyBusinessChanged(bool added, std::string topicName,
                               std::string businessName) override;

protected:
    ~RecordingCallback() override = default;

private:
    // Named by pointers, because the lock is taken inside.
    template <typename Entry>
    void record(std::vector<Entry> RecordingCallback::*list,
                std::function<void(Entry const&)> RecordingCallback::*hook, Entry const& entry)
            VESK_EXCLUDES(mMutex);

    size_t deliveryCount() const;
    uint64_t calls() const;
    bool waitForMoreCalls(uint64_t than, std::chrono::steady_clock::time_point end) const;

    mutable std::mutex mMutex;
    mutable std::condition_variable mRecorded;
    std::vector<Bytes> mSent VESK_GUARDED_BY(mMutex);
    std::vector<Delivery> mDeliveries VESK_GUARDED_BY(mMutex);
    std::vector<TopicChange> mTopicChanges VESK_GUARDED_BY(mMutex);
    std::vector<BusinessChange> mBusinessChanges VESK_GUARDED_BY(mMutex);
    SendHook mSendHook VESK_GUARDED_BY(mMutex);
    ReceiveHook mReceiveHook VESK_GUARDED_BY(mMutex);
    TopicHook mTopicHook VESK_GUARDED_BY(mMutex);
    BusinessHook mBusinessHook VESK_GUARDED_BY(mMutex);
    uint64_t mCalls VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk::testkit
