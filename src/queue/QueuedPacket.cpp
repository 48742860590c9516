#include <vesk/VeskQueue.h>

#include <quillex/SystemClock.h>

#include <utility>

namespace vesk {

VeskQueue::QueuedPacket::QueuedPacket(int priority, bool needRetransmission,
                                      std::shared_ptr<VeskFrame> frame)
    : mPriority(priority), mNeedRetransmission(needRetransmission), mFrame(std::move(frame)) {
    mEnqueueTime = quillex::SystemClock::uptimeMillis();
}

VeskQueue::QueuedPacket::QueuedPacket(QueuedPacket const& other)
    : RefBase(),
      mPriority(other.mPriority),
      mEnqueueTime(other.enqueueTime()),
      mEnqueueOrder(other.mEnqueueOrder),
      mNeedRetransmission(other.mNeedRetransmission),
      mFrame(other.mFrame) {}

VeskQueue::QueuedPacket::~QueuedPacket() = default;

bool VeskQueue::QueuedPacket::less(android::sp<QueuedPacket>& other) const {
    if (other == nullptr) {
        return false;
    }
    if (mPriority != other->mPriority) {
        return mPriority > other->mPriority;
    }
    if (mNeedRetransmission != other->mNeedRetransmission) {
        return other->mNeedRetransmission;
    }
    return other->enqueueTime() < enqueueTime();
}

}  // namespace vesk
