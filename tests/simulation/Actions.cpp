// What the local clients and the far side do in a simulation.

#include <algorithm>
#include <utility>

#include <vesk/testkit/Await.h>

#include "Simulation.h"

namespace vesk::simulation {

using testkit::FarPeer;
using testkit::Random;

namespace {

struct Address {
    uint8_t topicId, business;
};

char const* businessName(Address address) {
    static char const* const NAMES[] = {"cell0", "cell1", "cellims0", "cellims1"};
    return address.topicId == 2 ? "test" : NAMES[address.business - 10];
}

/** Few of the businesses, so that sessions meet. */
Address pickAddress(Random& random) {
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
        farSend();
    } else if (dice < 850) {
        farAckNonsense();
    } else if (dice < 960) {
        changeSessions();
    } else if (dice < 985) {
        changeTopics();
    } else if (dice < 995) {
        burst();
    } else if (mUp) {
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

std::shared_ptr<VeskFrame> Simulation::newTracked(bool withSerial) {
    if (mFrames.size() > 20000) {
        mFrames.erase(std::remove_if(mFrames.begin(), mFrames.end(),
                                     [](auto const& frame) { return frame.expired(); }),
                      mFrames.end());
    }
    auto frame = VeskFrame::obtainFrame(withSerial);
    mFrames.push_back(frame);
    return frame;
}

std::shared_ptr<VeskFrame> Simulation::newFrame(uint8_t topicId, uint8_t business, uint8_t type) {
    auto frame = newTracked(true);
    frame->topicId = topicId;
    frame->businessId = business;
    frame->msgType = type;
    // Mostly new ones; an old one supersedes what still waits in the history.
    frame->msgId =
            static_cast<uint16_t>(mRandom.chance(100) ? mRandom.below(mPayloads + 1) : mPayloads);
    frame->data = newPayload();
    return frame;
}

void Simulation::submit(int priority, bool needsAck, std::shared_ptr<VeskFrame> const& frame) {
    mModel.admit(mClock.now(), priority, needsAck, frame);
    if (!mHolding) {
        mModel.pass(mClock.now());
    }
    mQueue->enqueue(priority, needsAck, frame);
}

void Simulation::publish(RoutingModel::Session const& session, bool local,
                         std::shared_ptr<VeskFrame> const& frame) {
    auto const live = Vesk::getInstance()->getSessionManager()->getSession(session.id);
    if (!live) {
        fail("session " + std::to_string(session.id) + " is not to be found");
    }
    if (local) {
        expectDelivery(RoutingModel::receivers(*session.topic, frame->businessId, frame->msgType,
                                               frame->reply),
                       true);
    } else if (!session.topic->local) {
        mModel.admit(mClock.now(), 1, true, frame);
        if (!mHolding) mModel.pass(mClock.now());
    }
    live->send(local, frame, static_cast<int>(mRandom.below(4)));
    if (local) {
        checkDelivered();
    }
}

void Simulation::sendThroughSession() {
    auto const& sessions = mRouting.sessions();
    if (sessions.empty()) {
        return changeSessions();
    }
    auto const& session =
            *std::next(sessions.begin(), static_cast<ptrdiff_t>(mRandom.below(sessions.size())))
                     ->second;
    auto const type = static_cast<uint8_t>(mRandom.between(2, 3));
    auto const frame = newFrame(session.topicId, session.business, type);
    frame->reply = type == 2 ? session.id : static_cast<uint16_t>(mRandom.below(20));
    publish(session, mRandom.chance(150), frame);
}

void Simulation::answer(RoutingModel::Session const& session, VeskFrame const& request) {
    // Only sessions that the manager still knows can be sent through.
    auto const known = mRouting.sessions().find(session.id);
    if (known == mRouting.sessions().end() || known->second.get() != &session) {
        return;
    }
    auto const frame = newFrame(request.topicId, request.businessId, 3);
    frame->reply = request.reply;
    publish(session, false, frame);
}

void Simulation::enqueueDirectly() {
    static constexpr int PRIORITIES[] = {-3, 0, 1, 2, 2, 5};
    Address const to = pickAddress(mRandom);
    submit(PRIORITIES[mRandom.below(6)], mRandom.chance(700), newFrame(to.topicId, to.business, 2));
}

void Simulation::replacePending() {
    Address const to = pickAddress(mRandom);
    auto const frame = newFrame(to.topicId, to.business, 2);
    frame->msgId = static_cast<uint16_t>(mPayloads - mRandom.below(30));
    android::sp<VeskQueue::QueuedPacket> packet = new VeskQueue::QueuedPacket(1, true, frame);
    if (mQueue->replacePacket(packet) != mModel.replace(*frame)) {
        fail("replacePacket has found what is not pending, or has not found what is");
    }
}

Bytes Simulation::farFrame() {
    Address const to = pickAddress(mRandom);
    bool const foreign = mRandom.chance(50);
    FarPeer::Frame frame{to.topicId,
                         to.business,
                         static_cast<uint8_t>(mRandom.between(2, 3)),
                         static_cast<uint16_t>(mRandom.below(20)),
                         static_cast<uint16_t>(mRandom.below(65536)),
                         0,
                         newPayload()};
    if (foreign && !mLossless) {
        frame.businessId = static_cast<uint8_t>(mRandom.below(256));
        frame.msgType = static_cast<uint8_t>(mRandom.below(6));
    }
    return FarPeer::encode(frame);
}

void Simulation::farSend() {
    for (size_t count = mRandom.chance(100) ? mRandom.between(2, 12) : 1; count > 0 && mUp;
         --count) {
        Bytes bytes = farFrame();
        if (mLossless) mInSent.push_back(bytes);
        mIn.write(mClock.now(), std::move(bytes));
    }
}

void Simulation::farAckNonsense() {
    auto ack = FarPeer::ackFrame({{static_cast<uint16_t>(mRandom.below(65536)),
                                   static_cast<uint16_t>(mRandom.below(65536))}});
    if (mRandom.chance(300)) ack.reply = static_cast<uint16_t>(mRandom.below(4));
    if (mRandom.chance(300)) ack.businessId = 1;
    if (mRandom.chance(300)) ack.payload.resize(mRandom.below(12));
    receive(FarPeer::encode(ack));
}

void Simulation::changeSessions() {
    auto* const manager = Vesk::getInstance()->getSessionManager();
    auto const client = static_cast<uint32_t>(mRandom.below(CLIENTS));
    size_t const dice = mRandom.below(100);
    if (dice < 55) {
        Address const to = pickAddress(mRandom);
        bool const provider = mRandom.chance(500);
        bool const flag = mRandom.chance(200);
        int const id = manager->createSession(static_cast<int>(client), provider ? 2 : 1,
                                              TOPICS[to.topicId - 1], businessName(to), flag);
        if (id != mRouting.createSession(client, provider, to.topicId, to.business, flag)) {
            fail("createSession has returned " + std::to_string(id));
        }
    } else if (dice < 85) {
        auto const id = static_cast<uint16_t>(mRandom.below(20));
        if (manager->removeSession(id) != mRouting.removeSession(id)) {
            fail("removeSession(" + std::to_string(id) + ") has removed what was not there");
        }
    } else {
        manager->removeSessionByClient(client);
        mRouting.removeClient(client);
    }
}

void Simulation::changeTopics() {
    Vesk* const vesk = Vesk::getInstance();
    auto const id = static_cast<uint8_t>(mRandom.between(1, 2));
    if (mRandom.chance(300)) {
        if ((vesk->removeTopic(TOPICS[id - 1]) == id) != mRouting.removeTopic(id)) {
            fail("removeTopic has answered wrongly");
        }
        return;
    }
    bool const local = mRandom.chance(100);
    if ((vesk->createTopic(TOPICS[id - 1], local) == id) != mRouting.createTopic(id, local)) {
        fail("createTopic has answered wrongly");
    }
}

void Simulation::burst() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mGateShut = true;
    }
    submit(1, false, newFrame(1, 10, 2));
    if (mModel.expectsWrites()) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mGate.wait_for(lock, testkit::DEADLINE, [this] { return mBlocked; })) {
            fail("a priority-1 packet has not been written");
        }
        mHolding = true;
        mModel.blockWrites(true);
    }
    static constexpr size_t SIZES[] = {20, 40, 300, 999, 1000, 1001, 1200};
    size_t const count = SIZES[mRandom.below(7)];
    size_t const kind = mRandom.below(mHolding ? 3 : 2);
    for (size_t i = 0; i < count; ++i) {
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
