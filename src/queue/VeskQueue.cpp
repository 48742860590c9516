// The public operations: each hands over to the state that the queue shares with its looper.

#include <vesk/VeskQueue.h>

#include <vesk/VeskFrame.h>

#include <utility>

#include "queue/QueueState.h"

namespace vesk {

VeskQueue::VeskQueue() : mState(std::make_shared<State>()) {
    State::start(mState);
}

VeskQueue::~VeskQueue() {
    if (mState->isForked()) {
        return;  // the thread that the state is shared with does not exist here, and its locks may
    }            // be held for ever
    mState->stop();
    // On the looper itself stop() cannot wait for the thread, which then ends by itself.
    mState->detach();
    // The packets of the chain own each other, and would outlive the queue.
    mState->cleanup();
}

void VeskQueue::stop() {
    std::shared_ptr<State> const state = mState;  // the queue may go while this waits
    state->stop();
}

void VeskQueue::enqueue(int priority, bool needRetransmission, std::shared_ptr<VeskFrame> frame) {
    if (frame) mState->enqueue(priority, needRetransmission, std::move(frame));
}

void VeskQueue::push(android::sp<QueuedPacket>& packet) {
    // A packet without a frame could be neither logged nor sent, so nothing lets one in.
    if (packet != nullptr && packet->mFrame) mState->push(packet);
}

// The caller holds mutex(), which the analysis cannot follow into the state.
VESK_NO_LOCK_ANALYSIS
bool VeskQueue::enqueuePacket(android::sp<QueuedPacket>& packet) {
    android::sp<QueuedPacket> taken = packet;  // the caller keeps its own
    return packet != nullptr && packet->mFrame && mState->enqueuePacket(taken);
}

android::sp<VeskQueue::QueuedPacket> VeskQueue::dequeuePacket() {
    return mState->dequeuePacket();
}

android::sp<VeskQueue::QueuedPacket> VeskQueue::removePacket(
        android::sp<QueuedPacket> const& packet) {
    return packet == nullptr ? nullptr : mState->removePacket(packet);
}

bool VeskQueue::replacePacket(android::sp<QueuedPacket>& packet) {
    return packet != nullptr && packet->mFrame && mState->replacePacket(packet);
}

int VeskQueue::size() const {
    return mState->mPending;
}

size_t VeskQueue::awaitingAck() const {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    return mState->mWaitAckList.size();
}

size_t VeskQueue::owedAcks() const {
    return mState->owedAcks();
}

void VeskQueue::sendPacketToNetwork(unsigned long long& nextTime) {
    State::Released released;
    State::Pass pass(released);
    pass.wait = nextTime;
    mState->sendDuePackets(pass);
    nextTime = pass.wait;
}

VESK_NO_LOCK_ANALYSIS
bool VeskQueue::addToHistoryList(android::sp<QueuedPacket>& packet) {
    return packet == nullptr || !packet->mFrame ||
           mState->addToHistoryList(packet.get(), packet->sendTime());
}

void VeskQueue::cleanup() {
    mState->cleanup();
}

void VeskQueue::receiveFromChannel(std::shared_ptr<VeskFrame> frame) {
    if (!frame) {
        return;
    }
    std::shared_ptr<State> const state = mState;  // the host may let the queue go while it receives
    state->receiveFromChannel(std::move(frame));
}

void VeskQueue::receiveAckMessage(std::shared_ptr<VeskFrame> frame) {
    if (frame) mState->receiveAckMessage(*frame);
}

VESK_NO_LOCK_ANALYSIS
void VeskQueue::ackToPeer() {
    mState->ackToPeer();
}

VeskFeedback const& VeskQueue::feedback() const {
    return mState->mFeedback;
}

std::mutex& VeskQueue::mutex() const {
    return mState->mMutex;
}

uint64_t VeskQueue::acknowledged() const {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    return mState->mAcknowledged;
}

uint64_t VeskQueue::timedOut() const {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    return mState->mTimedOut;
}

uint64_t VeskQueue::superseded() const {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    return mState->mSuperseded;
}

uint64_t VeskQueue::refused() const {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    return mState->mRefused;
}

void VeskQueue::wake() {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    if (mState->wakeLooper()) mState->mCond.notify_one();
}

bool VeskQueue::idle() const {
    std::lock_guard<std::mutex> lock(mState->mMutex);
    return mState->mAsleep && !mState->mWakeAsked;
}

}  // namespace vesk
