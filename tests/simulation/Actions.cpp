// What the local clients and the far side do in a simulation.

#include <algorithm>
#include <iterator>

#include <vesk/testkit/Await.h>

#include "Simulation.h"

namespace vesk::simulation {

using testkit::FarPeer;

namespace {

struct Address {
    uint8_t topicId, business;
};

/** Few of the businesses, so that sessions meet. */
Address pickAddress(testkit::Random& random) {
    return random.chance(300) ? Address{2, 1}
                              : Address{1, static_cast<uint8_t>(random.between(10, 13))};
}

}  // namespace

void Simulation::act() {
    size_t const dice = mRandom.below(1000);
    if (dice < 330) {
        sendThroughSession();
    } else if (dice < 450) {
        enqueueDirectly();
    } else if (dice < 490) {
        replacePending();
    } else if (dice < 800) {
        for (size_t n = mRandom.chance(100) ? mRandom.between(2, 12) : 1; n > 0; --n) {
            farWrite(farFrame());
        }
    } else if (dice < 850) {
        receive(nonsenseAck());
    } else if (dice < 960) {
        changeSessions();
    } else if (dice < 985) {
        changeTopics();
    } else if (dice < 995) {
        burst();
    } else if (mUpAgain == 0) {
        setLink(false);
    }
}

Bytes Simulation::newPayload() {
    Bytes payload(mRandom.chance(50) ? mRandom.between(2, 4000) : mRandom.between(2, 60));
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i < 8 ? mPayloads >> (8 * i) : mPayloads * 31 + i);
    }
    ++mPayloads;
    return payload;
}

std::shared_ptr<VeskFrame> Simulation::newFrame(uint8_t topicId, uint8_t business, uint8_t type) {
    auto frame = VeskFrame::obtainFrame(true);
    mFrames.push_back(frame);
    mLastSerial = frame->serialNumber;
    frame->topicId = topicId;
    frame->businessId = business;
    frame->msgType = type;
    // Mostly new ones; an old one supersedes what still waits in the history.
    frame->msgId = static_cast<uint16_t>(mPayloads);
    if (mRandom.chance(100)) {
        frame->msgId = static_cast<uint16_t>(mRandom.below(static_cast<size_t>(mPayloads) + 1));
    }
    frame->data = newPayload();
    return frame;
}

void Simulation::submit(int priority, bool needsAck, std::shared_ptr<VeskFrame> const& frame) {
    mModel.admit(mClock.now(), priority, needsAck, frame);
    if (!mHolding) mModel.pass(mClock.now());
    mQueue->enqueue(priority, needsAck, frame);
}

void Simulation::publish(VeskSession& session, bool local,
                         std::shared_ptr<VeskFrame> const& frame) {
    auto const priority = static_cast<int>(mRandom.below(4));
    auto const topic = session.getTopic();
    if (local) {
        deliver(*frame, topic.get(), [&] { session.send(true, frame, priority); });
        return;
    }
    mModel.admit(mClock.now(), 1, true, frame);
    if (!mHolding) mModel.pass(mClock.now());
    session.send(false, frame, priority);
}

void Simulation::sendThroughSession() {
    if (mIds.empty()) {
        return changeSessions();
    }
    auto const id = *std::next(mIds.begin(), static_cast<ptrdiff_t>(mRandom.below(mIds.size())));
    auto const session = mSessions.getSession(id);
    require(session != nullptr, "session " + std::to_string(id) + " is not to be found");
    auto const type = static_cast<uint8_t>(mRandom.between(2, 3));
    auto const frame = newFrame(static_cast<uint8_t>(session->topicId()),
                                static_cast<uint8_t>(session->businessId()), type);
    frame->reply = type == 2 ? id : static_cast<uint16_t>(mRandom.below(20));
    publish(*session, mRandom.chance(150), frame);
}

void Simulation::answer(VeskSession& session, VeskFrame const& request) {
    auto const frame = newFrame(request.topicId, request.businessId, 3);
    frame->reply = request.reply;
    publish(session, false, frame);
}

void Simulation::enqueueDirectly() {
    static constexpr int PRIORITIES[] = {-3, 0, 1, 2, 2, 5};
    Address const to = pickAddress(mRandom);
    int const priority = PRIORITIES[mRandom.below(6)];
    bool const needsAck = mRandom.chance(700);
    submit(priority, needsAck, newFrame(to.topicId, to.business, 2));
}

void Simulation::replacePending() {
    Address const to = pickAddress(mRandom);
    auto const frame = newFrame(to.topicId, to.business, 2);
    frame->msgId = static_cast<uint16_t>(mPayloads - mRandom.below(30));
    android::sp<VeskQueue::QueuedPacket> packet = new VeskQueue::QueuedPacket(1, true, frame);
    require(mQueue->replacePacket(packet) == mModel.replace(*frame),
            "replacePacket has found what is not pending, or has not found what is");
}

Bytes Simulation::farFrame() {
    Address const to = pickAddress(mRandom);
    FarPeer::Frame frame{to.topicId,
                         to.business,
                         static_cast<uint8_t>(mRandom.between(2, 3)),
                         static_cast<uint16_t>(mRandom.below(20)),
                         static_cast<uint16_t>(mRandom.below(65536)),
                         0,
                         newPayload()};
    if (mRandom.chance(50) && !mLossless) {
        frame.businessId = static_cast<uint8_t>(mRandom.below(256));
        frame.msgType = static_cast<uint8_t>(mRandom.below(6));
    }
    return FarPeer::encode(frame);
}

Bytes Simulation::nonsenseAck() {
    auto ack = FarPeer::ackFrame({{static_cast<uint16_t>(mRandom.below(65536)),
                                   static_cast<uint16_t>(mLastSerial - mRandom.below(40))}});
    if (mRandom.chance(300)) ack.topicId = 2;
    if (mRandom.chance(300)) ack.reply = static_cast<uint16_t>(mRandom.below(4));
    if (mRandom.chance(300)) ack.businessId = 1;
    if (mRandom.chance(300)) ack.payload.resize(mRandom.below(12));
    return FarPeer::encode(ack);
}

void Simulation::changeSessions() {
    auto const client = static_cast<uint32_t>(mRandom.below(5));
    size_t const dice = mRandom.below(100);
    if (dice < 60) {
        Address const to = pickAddress(mRandom);
        VeskConfig const& config = *mVesk->getConfig();
        int const type = static_cast<int>(mRandom.between(1, 2));
        int const id = mSessions.createSession(
                static_cast<int>(client), type, config.getTopicIdById(to.topicId),
                config.getBussinessIdById(to.topicId, to.business), mRandom.chance(200));
        require((id > 0) == mVesk->hasTopic(uint16_t{to.topicId}),
                "createSession has returned " + std::to_string(id));
        if (id > 0) mIds.insert(static_cast<uint16_t>(id));
    } else if (dice < 85) {
        auto const id = static_cast<uint16_t>(mRandom.below(20));
        auto const session = mSessions.getSession(id);
        if (session && session->type() == 2) mRemoved.emplace(session->clientId(), id);
        require(mSessions.removeSession(id) == mIds.erase(id), "removeSession has removed wrongly");
    } else {
        mSessions.removeSessionByClient(client);
        for (auto next = mIds.begin(); next != mIds.end();) {
            next = mSessions.getSession(*next) ? std::next(next) : mIds.erase(next);
        }
    }
}

void Simulation::changeTopics() {
    auto const id = static_cast<uint8_t>(mRandom.between(1, 2));
    std::string const name = mVesk->getConfig()->getTopicIdById(id);
    bool const there = mVesk->hasTopic(uint16_t{id});
    if (mRandom.chance(300)) {
        require((mVesk->removeTopic(name) == id) == there, "removeTopic has answered wrongly");
    } else {
        require((mVesk->createTopic(name, false) == id) != there,
                "createTopic has answered wrongly");
    }
}

// The looper is held inside a write while many frames come from one side.
void Simulation::burst() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mGateShut = true;
    }
    submit(1, false, newFrame(1, 10, 2));
    if (mModel.expectsWrites()) {
        std::unique_lock<std::mutex> lock(mMutex);
        require(mGate.wait_for(lock, testkit::DEADLINE, [this] { return mBlocked; }),
                "a priority-1 packet has not been written");
        mHolding = true;
    }
    mModel.blockWrites(mHolding);
    static constexpr size_t SIZES[] = {20, 40, 300, 999, 1000, 1001, 1200};
    size_t const kind = mRandom.below(mHolding ? 3 : 2);
    for (size_t n = SIZES[mRandom.below(7)]; n > 0; --n) {
        if (kind == 0) {
            enqueueDirectly();
        } else if (kind == 1) {
            submit(1, true, newFrame(1, 10, 2));
        } else {
            receive(farFrame());
        }
    }
    mHolding = false;
    mModel.blockWrites(false);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mGateShut = false;
    }
    mGate.notify_all();
}

}  // namespace vesk::simulation
