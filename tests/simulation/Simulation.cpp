#include "Simulation.h"

#include <atomic>
#include <functional>
#include <thread>

#include <quillex/Log.h>
#include <vesk/Vesk.h>
#include <vesk/testkit/Await.h>
#include <vesk/testkit/ShiftedClock.h>

#include "QueueModel.h"
#include "RoutingModel.h"

namespace vesk::simulation {

namespace {

using testkit::eventually;
using testkit::Random;
using Session = RoutingModel::Session;
using PacketPtr = android::sp<VeskQueue::QueuedPacket>;

constexpr uint64_t HIGH = uint64_t{1} << 32, MINUTE = 60000;
/** Half of them beyond 32 bits, two where 32 bits wrap after some minutes. */
constexpr uint64_t STARTS[] = {1000000, HIGH - 3 * MINUTE, HIGH + 1, 5 * HIGH - MINUTE};

class Simulation;
Simulation* gSimulation = nullptr;  // null at process exit

/** Takes each lock of the library's facade: a destructor that calls it under one never returns. */
void callLibrary() {
    static auto const forNobody = std::make_shared<VeskFrame>();
    forNobody->msgType = 2;
    if (!gSimulation) return;
    Vesk& vesk = *Vesk::getInstance();
    vesk.getQueue()->owedAcks();
    vesk.getSessionManager()->getSession(1);
    vesk.notifyTopicChanged(true, "");
    for (uint16_t id = 1; id <= 2; ++id)
        if (auto const topic = vesk.getTopic(id)) topic->receive(true, forNobody);
}

template <typename T>
std::shared_ptr<T> calling(T* object) {
    return {object, [](T* old) {
                callLibrary();
                delete old;
            }};
}

class Simulation {
public:
    explicit Simulation(Random script) : mRandom(std::move(script)) {
        mVesk.onChannelAvailable(false);
        changeHost();
        gSimulation = this;
        quillex::Log::setSink([](char const* tag, char const* message) {
            if (tag == std::string("VeskQueue")) gSimulation->mModel->logged(message);
        });
    }

    ~Simulation() {
        quillex::Log::setSink(nullptr);
        gSimulation = nullptr;
    }

    void run(uint64_t minutes) {
        uint64_t const end = now() + minutes * MINUTE;
        while (now() < end && !mRandom.exhausted()) {
            moveTime();
            hearFarSide();
            act();
            settle();
        }
        mQuiet = true;
        drop(std::move(mKept));
        // For 2 s what is on its way may still come, and be answered.
        for (int quiet = 0; quiet < 7000; quiet += 100) {
            mClock.jump(100);
            settle();
            hearFarSide();
        }
        require(mModel->empty(), "it has been quiet for 5 s and packets are left");
        everybodyLeaves();
    }

    std::map<std::string, uint64_t> const& totals() const { return mOwnModel.totals; }

private:
    struct Host : VeskCallback {
        explicit Host(Simulation* simulation) : mSimulation(simulation) {}
        ~Host() override { callLibrary(); }
        void receive(uint32_t client, uint32_t id, bool local, FramePtr const& frame) override {
            mSimulation->onDelivery(client, id, local, frame);
        }
        void sendToChannel(Bytes bytes) override { mSimulation->onWrite(std::move(bytes)); }
        void notifyTopicChanged(bool, std::string) override {}
        void notifyBusinessChanged(bool, std::string, std::string) override {}
        Simulation* mSimulation;
    };
    struct OwnPacket : VeskQueue::QueuedPacket {
        using QueuedPacket::QueuedPacket;
        ~OwnPacket() override { callLibrary(); }
    };
    struct Route {
        std::vector<Session> receivers;
        bool local;
        VeskFrame const* frame;
        int deliveries;
    };
    struct Address {
        uint8_t topicId, business;
    };

    void act() {
        static constexpr std::pair<size_t, void (Simulation::*)()> ACTIONS[] = {
                {330, &Simulation::sendThroughSession},
                {90, &Simulation::enqueueDirectly},
                {40, &Simulation::pushOwn},
                {15, &Simulation::removeOwn},
                {15, &Simulation::dequeueFirst},
                {40, &Simulation::replacePending},
                {270, &Simulation::farFrames},
                {50, &Simulation::nonsenseAck},
                {60, &Simulation::join},
                {40, &Simulation::leave},
                {10, &Simulation::joinTopicItself},
                {20, &Simulation::changeTopics},
                {5, &Simulation::changeHost},
                {10, &Simulation::burst},
                {5, &Simulation::lendToOtherQueue},
                {5, &Simulation::loseLink}};
        size_t dice = mRandom.below(1005);
        for (auto const& [weight, action] : ACTIONS) {
            if (dice < weight) return (this->*action)();
            dice -= weight;
        }
    }

    // The queue is busy with this very packet.
    void actInWrite(Bytes const& bytes) {
        bool const atHome = mModel == &mOwnModel;
        PacketPtr const own = mModel->packetInWrite();
        size_t const dice = mRandom.below(40);
        if (dice < 3 && bytes[5] != 1) {
            auto const serial = static_cast<uint16_t>(bytes[8] | bytes[9] << 8);
            receive(FarPeer::encode(FarPeer::ackFrame({{0, serial}})));
        } else if (dice < 6 && atHome && !mModel->tooManyOwed()) {
            receive(farFrame());
        } else if (dice == 6 && own != nullptr) {
            remove(own);
        } else if (dice == 7 && own != nullptr) {
            push(PacketPtr(own));  // it is pending still
        } else if (dice == 8) {
            drop(dequeue());
        } else if (dice == 12 && mModel->at(0)) {
            push(dequeue());  // to be sent a second time, where it is the one in the write
        } else if (dice == 9) {
            enqueueDirectly();
        } else if (dice == 10) {
            replacePending();
        } else if (dice == 11 && atHome && mRandom.chance(100)) {
            mModel->cleanup();
            mQueue->cleanup();
        }
    }

    // Time and the link

    // From inside a write, and while the looper is held in one, there is nothing to wait for.
    void settle() {
        if (mHolding || std::this_thread::get_id() != mThread) return;
        bool first = true;
        auto const rests = [&] { return asleep(*mQueue, std::exchange(first, false)); };
        require(eventually(rests), "the looper finds no rest");
        mModel->rest();
        std::vector<FarPeer::Ack> acks;
        for (Bytes const& bytes : std::exchange(mWritten, {})) {
            auto const serial = static_cast<uint16_t>(bytes[8] | bytes[9] << 8);
            if (bytes[5] != 1 && mRandom.chance(mQuiet ? 1000 : 700))
                acks.push_back({u16Below(300), serial});
        }
        for (int times = mRandom.chance(100) ? 2 : 1; times > 0 && !acks.empty(); --times)
            mArriving.emplace(now() + mRandom.below(2000),
                              FarPeer::encode(FarPeer::ackFrame(acks)));
    }

    void moveTime() {
        // Just before and just at a deadline is where a bound that is off by one shows.
        uint64_t const left = mModel->nextDeadline() - now();
        bool const near = left > 1 && left < 2000 && mRandom.chance(400);
        mClock.jump(static_cast<int64_t>(near ? left - mRandom.below(2) : mRandom.below(250)));
        settle();
    }

    void hearFarSide() {
        while (!mArriving.empty() && mArriving.begin()->first <= now())
            receive(mArriving.extract(mArriving.begin()).mapped());
    }

    void loseLink() {
        mArriving.clear();
        mModel->cleanup();
        mVesk.onChannelAvailable(false);
    }

    void onWrite(Bytes bytes) {
        mModel->writing(bytes);
        if (!mQuiet && mRandom.chance(mBusy)) actInWrite(bytes);
        if (!mQuiet && mRandom.chance(mSlow))
            mClock.jump(1 + static_cast<int64_t>(mRandom.below(30)));
        mWritten.push_back(std::move(bytes));
        mBlocked = mGateShut.load();
        require(eventually([this] { return !mGateShut; }), "the looper is not let go");
        mModel->written();
    }

    // Frames

    /** Few of the businesses, so that sessions meet. */
    Address anyAddress() {
        if (mRandom.chance(300)) return {2, 1};
        return {1, static_cast<uint8_t>(mRandom.between(1, 3))};
    }

    uint16_t u16Below(size_t limit) { return static_cast<uint16_t>(mRandom.below(limit)); }

    Bytes newPayload() {
        Bytes payload(mRandom.chance(50) ? mRandom.between(2, 4000) : mRandom.between(2, 60));
        for (size_t i = 0; i < payload.size(); ++i)
            payload[i] = static_cast<uint8_t>(i < 8 ? mPayloads >> (8 * i) : mPayloads * 31 + i);
        ++mPayloads;
        return payload;
    }

    FramePtr newFrame(uint16_t topicId, uint16_t business, uint8_t type, uint16_t reply) {
        auto frame = calling(new VeskFrame(*VeskFrame::obtainFrame(true)));
        mLastSerial = frame->serialNumber;
        frame->topicId = static_cast<uint8_t>(topicId);
        frame->businessId = static_cast<uint8_t>(business);
        frame->msgType = type;
        frame->reply = reply;
        // Mostly new ones; an old one supersedes what still waits, but in a burst that fills the
        // history.
        size_t const back = !mHolding && mRandom.chance(100) ? mRandom.below(60) : 0;
        frame->msgId = static_cast<uint16_t>(mPayloads - back);
        frame->data = newPayload();
        return frame;
    }

    FramePtr anyFrame() {
        Address const to = anyAddress();
        return newFrame(to.topicId, to.business, 2, 0);
    }

    Bytes farFrame() {
        Address to = anyAddress();
        size_t type = mRandom.between(2, 3);
        unsigned const foreign = mHolding ? 0 : 50;  // a burst is as long as it means to be
        if (mRandom.chance(foreign)) to.business = static_cast<uint8_t>(mRandom.below(256));
        if (mRandom.chance(foreign)) type = mRandom.below(6);
        return FarPeer::encode({to.topicId, to.business, static_cast<uint8_t>(type), u16Below(20),
                                u16Below(65536), u16Below(65536), newPayload()});
    }

    void farFrames() {
        for (size_t n = mRandom.chance(100) ? mRandom.between(2, 12) : 1; n > 0; --n)
            receive(farFrame());
    }

    void nonsenseAck() {
        auto const serial = static_cast<uint16_t>(mLastSerial - mRandom.below(40));
        auto ack = FarPeer::ackFrame({{u16Below(65536), serial}});
        if (mRandom.chance(300)) ack.topicId = 2;
        if (mRandom.chance(300)) ack.reply = u16Below(4);
        if (mRandom.chance(300)) ack.businessId = 1;
        if (mRandom.chance(300)) ack.payload.resize(mRandom.below(12));
        receive(FarPeer::encode(ack));
    }

    void receive(Bytes const& bytes) {
        auto frame = calling(new VeskFrame);
        frame->unSerialze(bytes);
        mModel->expect("receiveFromChannel:", frame->serialNumber, ",msgType:", +frame->msgType,
                       ",msg:", frame->msgId);
        bool const ack = frame->msgType == 1;
        if (ack && frame->topicId == 0xAA && frame->businessId == 0xAA) mModel->acknowledge(*frame);
        bool const data = !ack && mConfig.isBussinessSupport(frame->topicId, frame->businessId);
        auto const* const topic = data ? mRouting.topic(frame->topicId) : nullptr;
        // Owed only when it has been delivered; what the session does first comes before.
        if (data && mRouting.receivers(topic, *frame).empty()) mModel->owe(frame->serialNumber);
        route(topic, false, frame, [&] { mQueue->receiveFromChannel(frame); });
        mModel->letGo(frame);
        frame.reset();
        settle();
    }

    void route(RoutingModel::Topic const* topic, bool local, FramePtr const& frame,
               std::function<void()> const& send) {
        Route route{mRouting.receivers(topic, *frame), local, frame.get(), 0};
        Route* const outer = std::exchange(mRoute, &route);
        send();
        mRoute = outer;
        require(route.deliveries == (route.receivers.empty() ? 0 : 1), "delivered to ",
                route.deliveries, " sessions");
    }

    void onDelivery(uint32_t client, uint32_t id, bool local, FramePtr const& frame) {
        Route& route = *mRoute;
        auto const is = [&](Session const& one) { return one.client == client && one.id == id; };
        auto const to = std::find_if(route.receivers.begin(), route.receivers.end(), is);
        require(to != route.receivers.end() && local == route.local && frame.get() == route.frame,
                "session ", id, " of client ", client, " has got what was not for it");
        ++route.deliveries;
        auto const found = mRouting.sessions.find(to->id);
        bool const joined = found != mRouting.sessions.end() && found->second.number == to->number;
        if (frame->msgType == 2 && joined && mRandom.chance(500))
            publish(*to, newFrame(frame->topicId, frame->businessId, 3, frame->reply));
        if (!local) mModel->owe(frame->serialNumber);
    }

    // The queue

    void submit(int priority, bool needsAck, FramePtr frame) {
        mModel->admit(priority, needsAck, frame, nullptr);
        mQueue->enqueue(priority, needsAck, std::move(frame));
        settle();
    }

    void enqueueDirectly() {
        static constexpr int PRIORITIES[] = {-3, 0, 1, 2, 2, 5};
        int const priority = PRIORITIES[mRandom.below(6)];
        bool const needsAck = mRandom.chance(700);
        submit(priority, needsAck, anyFrame());
    }

    PacketPtr ownPacket(int priority) {
        bool const needsAck = mRandom.chance(500);
        return new OwnPacket(priority, needsAck, anyFrame());
    }

    void push(PacketPtr&& packet) {
        mModel->admit(packet->priority(), packet->needRetransmission(), packet->getFrame(),
                      packet.get());
        mQueue->push(packet);
        packet.clear();
        settle();
    }

    void pushOwn() { push(ownPacket(static_cast<int>(mRandom.below(4)))); }

    static bool isOf(PacketPtr const& packet, WeakFrame const& frame) {
        if (packet == nullptr) return frame.expired();
        return packet->getFrame() == frame.lock() || packet->getFrame()->msgType == 1;
    }

    PacketPtr dequeue() {
        auto const taken = mModel->take(mModel->at(0));
        auto packet = mQueue->dequeuePacket();
        require(isOf(packet, taken.first), "dequeuePacket has given something else than the first");
        return packet;
    }

    void drop(PacketPtr&& packet) {
        if (packet != nullptr) mModel->mayKeep(packet->getFrame());
        packet.clear();
    }

    /** For a while: what followed the packet comes and goes without it. */
    void keep(PacketPtr&& packet) {
        drop(std::move(mKept));
        if (packet != nullptr && packet->sendTime() != 0) return drop(std::move(packet));
        mKept = packet;
    }

    void dequeueFirst() {
        auto packet = dequeue();
        settle();
        if (packet != nullptr && mRandom.chance(500)) return push(std::move(packet));
        keep(std::move(packet));
    }

    void remove(PacketPtr const& packet) {
        auto const taken = mModel->take(mModel->find(packet.get()));
        require(isOf(mQueue->removePacket(packet), taken.second),
                "removePacket has returned something else than the next one");
        settle();
    }

    void removeOwn() {
        if (mModel->stuck()) return;
        PacketPtr packet = ownPacket(2);
        push(PacketPtr(packet));
        remove(packet);
        remove(packet);  // nothing happens any more
        keep(std::move(packet));
    }

    // One with another topic, business, type, receiver or id than the pending one replaces nothing.
    void replacePending() {
        VeskFrame const* const pending = mModel->at(mRandom.below(3));
        if (!pending) return;
        auto frame = std::make_shared<VeskFrame>(*pending);
        size_t const field = mRandom.below(10);
        if (field == 0) frame->topicId ^= 3;
        if (field == 1) frame->businessId ^= 1;
        if (field == 2) frame->msgType ^= 1;
        if (field == 3) ++frame->reply;
        if (field == 4) ++frame->msgId;
        frame->data = newPayload();
        bool const expected = mModel->replace(*frame);
        PacketPtr packet = new OwnPacket(1, true, frame);
        require(mQueue->replacePacket(packet) == expected, "replacePacket has answered wrongly");
    }

    // The looper is held inside a write while many frames come from one side.
    void burst() {
        bool const held = !mModel->stuck();
        mHolding = mGateShut = held;
        mBlocked = false;
        if (held) submit(1, false, anyFrame());
        require(eventually([&] { return mBlocked == held; }), "a packet has not been written");
        static constexpr size_t SIZES[] = {20, 40, 300, 999, 1000, 1001, 1200};
        size_t const kind = mRandom.below(held ? 3 : 2);
        for (size_t n = SIZES[mRandom.below(7)]; n > 0; --n) {
            if (kind == 0) enqueueDirectly();
            if (kind == 1) submit(1, true, anyFrame());
            if (kind == 2) receive(farFrame());
        }
        mHolding = mGateShut = false;
    }

    void lendToOtherQueue() {
        auto away = std::make_shared<VeskQueue>();
        QueueModel ofAway(*away), *other = &ofAway;
        auto const change = [&] {
            mQueue.swap(away);
            std::swap(mModel, other);
            settle();
        };
        for (size_t n = mRandom.between(1, 5); n > 0; --n) {
            PacketPtr packet = mModel->at(0) ? dequeue() : ownPacket(2);
            change();
            push(PacketPtr(packet));
            require(away->removePacket(packet) == nullptr, "a queue has removed another's packet");
            if (!other->stuck()) {
                mModel->expect("enqueuing packet:", packet->getFrame()->msgId);
                mModel->expect("enqueue fail.");
                away->push(packet);
            }
            packet.clear();
            if (mRandom.chance(500)) enqueueDirectly();
            packet = dequeue();
            change();
            if (packet != nullptr) push(std::move(packet));
        }
        change();
        mModel->cleanup();  // which its end includes
        mQueue.swap(away);
        away.reset();
        std::swap(mModel, other);
        mModel->inherit(ofAway);
    }

    // Sessions and topics

    void publish(Session const& from, FramePtr frame) {
        auto const session = mSessions.getSession(from.id);
        require(session && session->clientId() == from.client && session->type() == from.type &&
                        session->businessId() == from.business && session->flag() == from.flag,
                "session ", from.id, " is another one");
        auto const priority = static_cast<int>(mRandom.below(4));
        bool const local = mRandom.chance(250), queued = !local && !from.topic->local;
        if (queued) mModel->admit(1, true, frame, nullptr);
        route(local ? from.topic : nullptr, local, frame,
              [&] { session->send(local, frame, priority); });
        if (!queued) mModel->letGo(frame);
        frame.reset();
        settle();
    }

    void sendThroughSession() {
        if (mRouting.sessions.empty()) return join();
        auto from = mRouting.sessions.begin();
        std::advance(from, mRandom.below(mRouting.sessions.size()));
        Session const session = from->second;
        bool const request = mRandom.chance(500);
        uint16_t const to = request ? session.id : u16Below(20);
        publish(session, newFrame(session.topic->id, session.business, request ? 2 : 3, to));
    }

    void join() {
        Address const to = anyAddress();
        auto const client = static_cast<int>(mRandom.below(5));
        int const type = mRandom.chance(20) ? 3 : static_cast<int>(mRandom.between(1, 2));
        bool const flag = mRandom.chance(200);
        int const id =
                mSessions.createSession(client, type, mConfig.getTopicIdById(to.topicId),
                                        mConfig.getBussinessIdById(to.topicId, to.business), flag);
        require(id == mRouting.createSession(static_cast<uint32_t>(client), type, to.topicId,
                                             to.business, flag),
                "createSession has returned ", id);
        if (id > 0) mAllSessions.push_back(mSessions.getSession(static_cast<uint16_t>(id)));
    }

    void leave() {
        uint16_t const id = u16Below(20);
        if (mRandom.chance(400)) return removeByClient(id % 5);
        size_t const removed = mSessions.removeSession(id);
        require(removed == mRouting.removeSession(id), "removeSession has removed wrongly");
        requireReleased();
    }

    void removeByClient(uint32_t client) {
        mRouting.removeByClient(client);
        mSessions.removeSessionByClient(client);
        requireReleased();
    }

    // A session that the host makes itself, perhaps in place of one that it has made before.
    void joinTopicItself() {
        Address const to = anyAddress();
        auto* const topic = mRouting.topic(to.topicId);
        auto const live = mVesk.getTopic(to.topicId);
        require(!live == !topic, "a topic is there, or is not");
        if (!topic) return;
        auto const id = static_cast<uint16_t>(40000 + mRandom.below(3));
        int const type = static_cast<int>(mRandom.between(1, 2));
        mRouting.enter({id, 9, type, false, to.business, topic, 0});
        auto own = calling(new VeskSession(id, false, type, 9, to.topicId, to.business, ""));
        mAllSessions.push_back(own);
        live->addSession(id, type == 2, std::move(own));
        requireReleased();
    }

    void requireReleased() {
        std::set<VeskSession*> alive;
        for (auto const& session : mAllSessions)
            alive.insert(session.lock().get());
        alive.erase(nullptr);
        require(alive.size() == mRouting.alive(), alive.size(), " sessions are alive, not ",
                mRouting.alive());
    }

    void changeTopics() {
        auto const id = static_cast<uint16_t>(mRandom.between(1, 2));
        std::string const name = mConfig.getTopicIdById(id);
        bool const remove = mRandom.chance(300), local = mRandom.chance(200);
        int const expected = remove ? mRouting.removeTopic(id) : mRouting.createTopic(id, local);
        int const found = remove ? mVesk.removeTopic(name) : mVesk.createTopic(name, local);
        require(found == expected, "createTopic or removeTopic has answered wrongly");
        if (!remove && found != 0) mTopics.push_back(mVesk.getTopic(id));
    }

    // Callbacks come and go, and so does the time that their writes take.
    void changeHost() {
        static constexpr unsigned SLOW[] = {0, 0, 100, 1000};
        mSlow = SLOW[mRandom.below(4)];
        mBusy = mRandom.chance(500) ? 1000 : 0;
        mVesk.init(new Host(this));
    }

    void everybodyLeaves() {
        for (uint32_t client = 0; client < 5; ++client)
            removeByClient(client);
        for (size_t i = 0; i < mTopics.size(); ++i) {
            auto& topic = mRouting.topics[i];
            auto const live = mTopics[i].lock();
            for (auto const& table : {topic.all, topic.providers}) {
                for (auto const& entry : table) {
                    mRouting.leave(entry.first, topic);
                    live->removeSession(entry.first);
                    requireReleased();
                }
            }
        }
        for (uint16_t id = 1; id <= 2; ++id)
            mVesk.removeTopic(mConfig.getTopicIdById(id));
        for (auto const& topic : mTopics)
            require(topic.expired(), "a removed topic is held without a session");
        settle();
    }

    Vesk& mVesk = *Vesk::getInstance();
    VeskConfig const& mConfig = *mVesk.getConfig();
    VeskSessionManager& mSessions = *mVesk.getSessionManager();
    std::shared_ptr<VeskQueue> mQueue = mVesk.getQueue();  // the one that acts now
    QueueModel mOwnModel{*mQueue};
    QueueModel* mModel = &mOwnModel;  // of the queue that acts now
    RoutingModel mRouting;

    Random mRandom;
    testkit::ShiftedClock mClock{mQueue, STARTS[mRandom.below(4)]};
    std::multimap<uint64_t, Bytes> mArriving;  // what the far side has written, by its time
    uint64_t mPayloads = 0;
    uint16_t mLastSerial = 0;
    unsigned mSlow = 0, mBusy = 0;  // thousandths of the writes that take time, or do something
    Route* mRoute = nullptr;
    PacketPtr mKept;
    std::vector<std::weak_ptr<VeskSession>> mAllSessions;
    std::vector<std::weak_ptr<VeskTopic>> mTopics;

    std::thread::id const mThread = std::this_thread::get_id();
    bool mQuiet = false;  // writes take no time, and nothing is done from inside them
    bool mHolding = false;
    std::atomic<bool> mGateShut{false}, mBlocked{false};
    std::vector<Bytes> mWritten;
};

}  // namespace

std::map<std::string, uint64_t> simulate(Random script, uint64_t minutes) {
    Simulation simulation(std::move(script));
    simulation.run(minutes);
    return simulation.totals();
}

}  // namespace vesk::simulation
