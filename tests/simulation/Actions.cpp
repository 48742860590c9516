// What the local clients and the far side do in a simulation.

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
                              : Address{1, static_cast<uint8_t>(random.between(10, 12))};
}

uint16_t u16(Bytes const& bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

}  // namespace

class Simulation::OwnPacket : public VeskQueue::QueuedPacket {
public:
    using QueuedPacket::QueuedPacket;

protected:
    ~OwnPacket() override { callLibrary(); }
};

void Simulation::act() {
    static constexpr std::pair<size_t, void (Simulation::*)()> ACTIONS[] = {
            {330, &Simulation::sendThroughSession},
            {90, &Simulation::enqueueDirectly},
            {40, &Simulation::pushOwn},
            {15, &Simulation::removeOwn},
            {15, &Simulation::dequeueFirst},
            {40, &Simulation::replacePending},
            {270, &Simulation::farFrames},
            {50, &Simulation::nonsenseAck},
            {100, &Simulation::joinAndLeave},
            {10, &Simulation::joinTopicItself},
            {20, &Simulation::changeTopics},
            {5, &Simulation::changeHost},
            {10, &Simulation::burst},
            {5, &Simulation::lendToOtherQueue}};
    size_t dice = mRandom.below(1005);
    for (auto const& [weight, action] : ACTIONS) {
        if (dice < weight) return (this->*action)();
        dice -= weight;
    }
    if (mUpAgain == 0) setLink(false);
}

Bytes Simulation::newPayload() {
    Bytes payload(mRandom.chance(50) ? mRandom.between(2, 4000) : mRandom.between(2, 60));
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8_t>(i < 8 ? mPayloads >> (8 * i) : mPayloads * 31 + i);
    ++mPayloads;
    return payload;
}

FramePtr Simulation::newFrame(uint8_t topicId, uint8_t business, uint8_t type) {
    auto frame = trackedFrame(true);
    mLastSerial = frame->serialNumber;
    frame->topicId = topicId;
    frame->businessId = business;
    frame->msgType = type;
    // Mostly new ones; an old one supersedes what still waits in the history.
    uint64_t const old = mRandom.chance(100) ? mRandom.below(mPayloads + 1) : mPayloads;
    frame->msgId = static_cast<uint16_t>(old);
    frame->data = newPayload();
    return frame;
}

FramePtr Simulation::anyFrame() {
    Address const to = pickAddress(mRandom);
    return newFrame(to.topicId, to.business, 2);
}

void Simulation::submit(int priority, bool needsAck, FramePtr frame) {
    mModel->admit(priority, needsAck, frame, nullptr);
    mQueue->enqueue(priority, needsAck, std::move(frame));
    settle();
}

void Simulation::publish(RoutingModel::Session const& from, FramePtr frame) {
    auto const session = mSessions.getSession(from.id);
    require(session && session->clientId() == from.client && session->type() == from.type &&
                    session->businessId() == from.business && session->flag() == from.flag,
            text("session ", from.id, " is another one"));
    auto const priority = static_cast<int>(mRandom.below(4));
    if (mRandom.chance(250)) {
        route(from.topic, true, frame, [&] { session->send(true, frame, priority); });
        mModel->letGo(frame);
    } else if (from.topic->local) {
        mTrace.expect(text("[", from.topic->id, "] publish fail for local!"));
        session->send(false, frame, priority);
        mModel->letGo(frame);
    } else {
        mModel->admit(1, true, frame, nullptr);
        session->send(false, frame, priority);
    }
    frame.reset();
    settle();
}

void Simulation::sendThroughSession() {
    auto const& all = mRouting.sessions();
    if (all.empty()) return joinAndLeave();
    auto const& from =
            std::next(all.begin(), static_cast<ptrdiff_t>(mRandom.below(all.size())))->second;
    auto frame = newFrame(static_cast<uint8_t>(from.topic->id), static_cast<uint8_t>(from.business),
                          static_cast<uint8_t>(mRandom.between(2, 3)));
    frame->reply = frame->msgType == 2 ? from.id : static_cast<uint16_t>(mRandom.below(20));
    publish(from, std::move(frame));
}

void Simulation::enqueueDirectly() {
    static constexpr int PRIORITIES[] = {-3, 0, 1, 2, 2, 5};
    int const priority = PRIORITIES[mRandom.below(6)];
    bool const needsAck = mRandom.chance(700);
    submit(priority, needsAck, anyFrame());
}

void Simulation::push(PacketPtr&& packet) {
    mModel->admit(packet->priority(), packet->needRetransmission(), packet->getFrame(),
                  packet.get());
    mQueue->push(packet);
    packet.clear();
    settle();
}

Simulation::PacketPtr Simulation::ownPacket() {
    auto const priority = static_cast<int>(mRandom.below(4));
    return new OwnPacket(priority, mRandom.chance(500), anyFrame());
}

void Simulation::pushOwn() {
    push(ownPacket());
}

bool Simulation::isOf(PacketPtr const& packet, std::weak_ptr<VeskFrame> const& frame) {
    if (packet == nullptr) return frame.expired();
    return packet->getFrame() == frame.lock() || packet->getFrame()->msgType == 1;
}

Simulation::PacketPtr Simulation::dequeue() {
    VeskFrame const* const first = mModel->first();
    auto const taken = first ? mModel->take(first) : QueueModel::Taken();
    auto packet = mQueue->dequeuePacket();
    require(isOf(packet, taken.frame), "dequeuePacket has given something else than the first");
    return packet;
}

void Simulation::drop(PacketPtr&& packet) {
    if (packet != nullptr) mModel->mayKeep(packet->getFrame());
    packet.clear();
}

void Simulation::dequeueFirst() {
    auto packet = dequeue();
    settle();
    for (size_t n = mRandom.below(3); n > 0; --n)
        enqueueDirectly();  // what follows the packet no more comes and goes without it
    if (packet != nullptr && mRandom.chance(500)) return push(std::move(packet));
    drop(std::move(packet));
}

void Simulation::remove(PacketPtr const& packet) {
    VeskFrame const* const frame = mModel->find(packet.get());
    auto const taken = frame ? mModel->take(frame) : QueueModel::Taken();
    require(isOf(mQueue->removePacket(packet), taken.next),
            "removePacket has returned something else than the next one");
}

void Simulation::removeOwn() {
    if (mModel->stuck()) return;
    PacketPtr packet = ownPacket();
    if (packet->priority() == 1) return drop(std::move(packet));
    push(PacketPtr(packet));
    for (size_t n = mRandom.below(4); n > 0; --n)
        enqueueDirectly();
    for (int times = 0; times < 2; ++times) {  // the second time nothing happens
        remove(packet);
        settle();
    }
    drop(std::move(packet));
}

void Simulation::replace(FramePtr frame) {
    bool const expected = mModel->replace(*frame);
    PacketPtr packet = new OwnPacket(1, true, frame);
    require(mQueue->replacePacket(packet) == expected,
            "replacePacket has found what is not pending, or has not found what is");
}

void Simulation::replacePending() {
    auto frame = anyFrame();
    frame->msgId = static_cast<uint16_t>(mPayloads - mRandom.below(30));
    replace(std::move(frame));
}

// The queue is busy with this very packet.
void Simulation::actInWrite(Bytes const& bytes) {
    bool const home = mModel == &mQueueModel, data = bytes[5] != 1;
    PacketPtr const own = mModel->packetInWrite();
    switch (mRandom.below(60)) {
        case 0:
        case 1:
        case 2:
            if (data) receive(FarPeer::encode(FarPeer::ackFrame({{0, u16(bytes, 8)}})));
            break;
        case 3:
        case 4:
        case 5:
            if (home && !mModel->tooManyOwed()) receive(farFrame());
            break;
        case 6:
            if (own != nullptr) remove(own);
            break;
        case 7:
            drop(dequeue());
            break;
        case 8:
            if (own != nullptr) push(PacketPtr(own));  // it is pending still
            break;
        case 9:
            enqueueDirectly();
            break;
        case 10: {
            auto same = std::make_shared<VeskFrame>(*mModel->inWrite());
            same->data = newPayload();
            replace(std::move(same));
            break;
        }
        case 11:
            if (!home || !mRandom.chance(100)) break;
            mModel->cleanup();
            mQueue->cleanup();
            break;
        default:
            break;
    }
}

Bytes Simulation::farFrame() {
    Address const to = pickAddress(mRandom);
    FarPeer::Frame frame{to.topicId,
                         to.business,
                         static_cast<uint8_t>(mRandom.between(2, 3)),
                         static_cast<uint16_t>(mRandom.below(20)),
                         static_cast<uint16_t>(mRandom.below(65536)),
                         static_cast<uint16_t>(mPayloads),
                         newPayload()};
    if (mRandom.chance(50) && !mLossless) {
        frame.businessId = static_cast<uint8_t>(mRandom.below(256));
        frame.msgType = static_cast<uint8_t>(mRandom.below(6));
    }
    return FarPeer::encode(frame);
}

void Simulation::farFrames() {
    for (size_t n = mRandom.chance(100) ? mRandom.between(2, 12) : 1; n > 0; --n)
        farWrite(farFrame());
}

void Simulation::nonsenseAck() {
    auto ack = FarPeer::ackFrame({{static_cast<uint16_t>(mRandom.below(65536)),
                                   static_cast<uint16_t>(mLastSerial - mRandom.below(40))}});
    if (mRandom.chance(300)) ack.topicId = 2;
    if (mRandom.chance(300)) ack.reply = static_cast<uint16_t>(mRandom.below(4));
    if (mRandom.chance(300)) ack.businessId = 1;
    if (mRandom.chance(300)) ack.payload.resize(mRandom.below(12));
    receive(FarPeer::encode(ack));
}

void Simulation::joinAndLeave() {
    auto const client = static_cast<uint32_t>(mRandom.below(5));
    size_t const dice = mRandom.below(100);
    if (dice < 60) {
        Address const to = pickAddress(mRandom);
        int const type = dice == 0 ? 3 : static_cast<int>(mRandom.between(1, 2));
        bool const flag = mRandom.chance(200);
        int const expected = mRouting.createSession(client, type, to.topicId, to.business, flag);
        int const id = mSessions.createSession(
                static_cast<int>(client), type, mConfig.getTopicIdById(to.topicId),
                mConfig.getBussinessIdById(to.topicId, to.business), flag);
        require(id == expected, text("createSession has returned ", id, ", not ", expected));
        if (id > 0) mAllSessions.push_back(mSessions.getSession(static_cast<uint16_t>(id)));
    } else if (dice < 85) {
        auto const id = static_cast<uint16_t>(mRandom.below(20));
        size_t const expected = mRouting.removeSession(id);
        require(mSessions.removeSession(id) == expected, "removeSession has removed wrongly");
    } else {
        removeByClient(client);
    }
    requireReleased();
}

void Simulation::removeByClient(uint32_t client) {
    mRouting.removeByClient(client);
    mByClient = true;
    mSessions.removeSessionByClient(client);
    mByClient = false;
}

// A session that the host makes itself, in place of one that it has made before.
void Simulation::joinTopicItself() {
    Address const to = pickAddress(mRandom);
    auto* const model = mRouting.topic(to.topicId);
    auto const topic = mVesk->getTopic(to.topicId);
    require(!topic == !model, "a topic is there, or is not");
    if (!topic) return;
    auto const id = static_cast<uint16_t>(40000 + mRandom.below(3));
    int const type = static_cast<int>(mRandom.between(1, 2));
    if (mRandom.chance(300)) {
        mTrace.expect(mRouting.leave({id, 9, type, false, to.business, model, 0}));
        topic->removeSession(id);
    } else {
        mTrace.expect(text("VeskSession create:", id, ",topic:", +to.topicId,
                           ",bussiness:", +to.business));
        std::shared_ptr<VeskSession> session(
                new VeskSession(id, false, type, 9, to.topicId, to.business, ""),
                [](VeskSession* old) {
                    callLibrary();
                    delete old;
                });
        mRouting.enter({id, 9, type, false, to.business, model, ++mPayloads << 32});
        topic->addSession(id, type == 2, session);
        mAllSessions.push_back(session);
    }
    requireReleased();
}

void Simulation::requireReleased() {
    mAllSessions.remove_if([](auto const& session) { return session.expired(); });
    std::set<VeskSession*> alive;
    for (auto const& session : mAllSessions)
        alive.insert(session.lock().get());
    require(alive.size() == mRouting.alive(),
            text(alive.size(), " sessions are alive, not ", mRouting.alive()));
}

void Simulation::changeTopics() {
    auto const id = static_cast<uint8_t>(mRandom.between(1, 2));
    std::string const name = mConfig.getTopicIdById(id);
    if (mRandom.chance(300)) {
        int const expected = mRouting.removeTopic(id);
        require(mVesk->removeTopic(name) == expected, "removeTopic has answered wrongly");
    } else {
        bool const local = mRandom.chance(200);
        int const expected = mRouting.createTopic(id, local);
        require(mVesk->createTopic(name, local) == expected, "createTopic has answered wrongly");
        if (expected != 0) mAllTopics.push_back(mVesk->getTopic(uint16_t{id}));
    }
}

// Callbacks come and go, and so does the time that their writes take.
void Simulation::changeHost() {
    static constexpr unsigned SLOW[] = {0, 0, 100, 1000};
    mSlow = SLOW[mRandom.below(4)];
    mVesk->init(newHost());
}

// The looper is held inside a write while many frames come from one side.
void Simulation::burst() {
    bool const held = !mModel->stuck();
    mHolding = held;
    mBlocked = false;
    mGateShut = held;
    if (held) {
        submit(1, false, newFrame(1, 10, 2));
        require(testkit::eventually([this] { return mBlocked.load(); }),
                "a priority-1 packet has not been written");
    }
    static constexpr size_t SIZES[] = {20, 40, 300, 999, 1000, 1001, 1200};
    size_t const kind = mRandom.below(held ? 3 : 2);
    for (size_t n = SIZES[mRandom.below(7)]; n > 0; --n) {
        if (kind == 0) {
            enqueueDirectly();
        } else if (kind == 1) {
            submit(1, true, newFrame(1, 10, 2));
        } else {
            receive(farFrame());
        }
    }
    mHolding = mGateShut = false;
}

void Simulation::lendToOtherQueue() {
    auto queue = std::make_shared<VeskQueue>();
    QueueModel otherModel(*queue, mTrace), *model = &otherModel;
    auto const swap = [&] {
        mQueue.swap(queue);
        std::swap(mModel, model);
        settle();
    };
    for (size_t n = mRandom.between(1, 5); n > 0; --n) {
        PacketPtr packet = mModel->first() ? dequeue() : ownPacket();
        swap();
        push(std::move(packet));
        if (mRandom.chance(500)) enqueueDirectly();
        packet = dequeue();
        swap();
        if (packet != nullptr) push(std::move(packet));
    }
    otherModel.cleanup();
    queue.reset();
    mModel->inherit(otherModel);
}

}  // namespace vesk::simulation
