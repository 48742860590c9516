#include "Simulation.h"

#include <map>
#include <thread>

#include <quillex/Log.h>
#include <vesk/Vesk.h>
#include <vesk/testkit/Await.h>
#include <vesk/testkit/ShiftedClock.h>

#include "QueueModel.h"

namespace vesk::simulation {

namespace {

using PacketPtr = android::sp<VeskQueue::QueuedPacket>;

constexpr uint64_t HIGH = uint64_t{1} << 32, MINUTE = 60000;
/** Half of them beyond 32 bits, two where 32 bits wrap after some minutes. */
constexpr uint64_t STARTS[] = {1000000, HIGH - 3 * MINUTE, HIGH + 1, 5 * HIGH - MINUTE};
/** Sessions 1 to 4 are providers of a business each, 5 to 8 consumers; 101 is the client of 1. */
constexpr unsigned BUSINESSES = 4, SESSIONS = 8, CLIENT = 100;

class Simulation;
Simulation* gSimulation = nullptr;
/** What is under way on this thread to a session, and whether locally; null when it is there. */
using Delivery = std::pair<VeskFrame const*, bool>;
thread_local Delivery tDelivery;

/** Whoever destroys the frame under a lock of the queue or of the facade never returns. */
FramePtr calling(VeskFrame* frame) {
    return {frame, [](VeskFrame* old) {
                Vesk::getInstance()->getQueue()->owedAcks();
                Vesk::getInstance()->notifyTopicChanged(true, "");
                delete old;
            }};
}

class Simulation {
public:
    explicit Simulation(testkit::Random script) : mRandom(std::move(script)) {
        mVesk.onChannelAvailable(false);
        mVesk.init(new Host);
        mVesk.createTopic("virtualcomm", false);
        for (unsigned id = 1; id <= SESSIONS; ++id) {
            auto const business = mVesk.getConfig()->getBussinessIdById(1, businessOf(id));
            mSessions.createSession(int(CLIENT + id), id <= BUSINESSES ? 2 : 1, "virtualcomm",
                                    business, false);
        }
        gSimulation = this;
        quillex::Log::setSink([](char const* tag, char const* message) {
            if (tag == std::string("VeskQueue")) gSimulation->mModel.logged(message);
        });
    }

    ~Simulation() { quillex::Log::setSink(nullptr); }

    void run(uint64_t minutes) {
        uint64_t const end = now() + minutes * MINUTE;
        while (now() < end && !mRandom.exhausted()) {
            moveTime(nextStep());
            act(&Action::weight);
            settle();
        }
        mSlow = mBusy = 0;
        // For 2 s answers may still come, and then what was sent because of them expires.
        for (int quiet = 0; quiet < 7000; quiet += 100)
            moveTime(100);
        require(mModel.empty(), "it has been quiet for 5 s and packets are left");
        for (uint32_t id = 1; id <= SESSIONS; ++id)
            mSessions.removeSessionByClient(CLIENT + id);
        mVesk.removeTopic("virtualcomm");
    }

private:
    struct Host : VeskCallback {
        void receive(uint32_t client, uint32_t id, bool local, FramePtr const& frame) override {
            gSimulation->onDelivery(client, id, local, frame);
        }
        void sendToChannel(Bytes bytes) override { gSimulation->onWrite(bytes); }
        void notifyTopicChanged(bool, std::string) override {}
        void notifyBusinessChanged(bool, std::string, std::string) override {}
    };
    struct Action {
        size_t weight, weightInWrite;
        void (Simulation::*act)();
    };

    void act(size_t Action::*weight) {
        // What a script does that is used up comes first, and begins nothing new.
        static constexpr Action ACTIONS[] = {
                {0, 30, &Simulation::answerAtOnce}, {375, 0, &Simulation::sendThroughSession},
                {90, 10, &Simulation::enqueueAny},  {40, 0, &Simulation::pushOwn},
                {15, 20, &Simulation::removeOwn},   {40, 20, &Simulation::dequeueFirst},
                {385, 30, &Simulation::farFrames},  {0, 30, &Simulation::burst},
                {5, 1, &Simulation::loseLink}};
        size_t dice = mRandom.below(weight == &Action::weight ? 1000 : 400);
        for (Action const& action : ACTIONS) {
            if (dice < action.*weight) return (this->*action.act)();
            dice -= action.*weight;
        }
    }

    // Time and the link

    // From inside a write there is nothing to wait for.
    void settle() {
        if (std::this_thread::get_id() != mThread) return;
        bool first = true;
        auto const rests = [&] { return asleep(*mQueue, std::exchange(first, false)); };
        require(testkit::eventually(rests), "the looper finds no rest");
        mModel.rest();
        std::vector<FarPeer::Ack> acks;
        for (FarPeer::Frame const& frame : std::exchange(mWritten, {})) {
            if (!FarPeer::isAck(frame) && mRandom.chance(700))
                acks.push_back({u16Below(300), frame.serialNumber});
        }
        for (int times = mRandom.chance(100) ? 2 : 1; times > 0 && !acks.empty(); --times)
            mArriving.emplace(now() + mRandom.below(2000), FarPeer::ackFrame(acks));
    }

    uint64_t nextStep() {
        // Just before and just at a deadline is where a bound that is off by one shows.
        uint64_t const left = mModel.nextDeadline() - now();
        bool const near = left > 1 && left < 2000 && mRandom.chance(400);
        return near ? left - mRandom.below(2) : mRandom.below(250);
    }

    void moveTime(uint64_t millis) {
        mClock.jump(static_cast<int64_t>(millis));
        settle();
        while (!mArriving.empty() && mArriving.begin()->first <= now())
            receive(mArriving.extract(mArriving.begin()).mapped());
    }

    void loseLink() {
        mModel.cleanup();
        mVesk.onChannelAvailable(false);
    }

    void onWrite(Bytes const& bytes) {
        mModel.writing(bytes);
        mWritten.push_back(FarPeer::decode(bytes));
        if (mRandom.chance(mBusy)) act(&Action::weightInWrite);
        if (mRandom.chance(mSlow)) mClock.jump(int64_t(mRandom.between(1, 30)));
        mModel.written();
    }

    // Frames

    uint16_t u16Below(size_t limit) { return static_cast<uint16_t>(mRandom.below(limit)); }

    static uint8_t businessOf(unsigned id) { return uint8_t((id - 1) % BUSINESSES + 1); }
    uint8_t anyBusiness() { return uint8_t(mRandom.between(1, BUSINESSES)); }

    Bytes newPayload() {
        return Bytes(mRandom.between(2, mRandom.chance(50) ? 4000 : 60),
                     uint8_t(mRandom.below(256)));
    }

    FramePtr newFrame(uint8_t business, uint8_t type, uint16_t reply) {
        auto frame = calling(new VeskFrame(*VeskFrame::obtainFrame(true)));
        frame->topicId = 1;
        frame->businessId = business;
        frame->msgType = type;
        frame->reply = reply;
        frame->msgId = frame->serialNumber;
        frame->data = newPayload();
        return frame;
    }

    FarPeer::Frame farFrame() {
        uint8_t const business = anyBusiness(), type = uint8_t(mRandom.between(2, 3));
        return {1, business, type, u16Below(20), u16Below(65536), u16Below(65536), newPayload()};
    }

    void farFrames() {
        // More than the bound are forgotten, and only at rest is it certain that they are.
        if (mModel.owed() >= QueueModel::BOUND) return;
        for (size_t n = mRandom.chance(100) ? mRandom.between(2, 12) : 1; n > 0; --n) {
            FarPeer::Frame frame = farFrame();
            if (mRandom.chance(50)) frame.businessId = uint8_t(mRandom.below(256));
            if (mRandom.chance(50)) frame.msgType = uint8_t(mRandom.below(6));
            receive(frame);
        }
    }

    void answerAtOnce() {
        FarPeer::Frame const& frame = mWritten.back();
        if (!FarPeer::isAck(frame)) receive(FarPeer::ackFrame({{0, frame.serialNumber}}));
    }

    void receive(FarPeer::Frame const& from) {
        auto const frame = calling(new VeskFrame);
        frame->unSerialze(FarPeer::encode(from));
        mModel.expect(text("receiveFromChannel:", from.serialNumber, ",msgType:", +from.msgType,
                           ",msg:", from.msgId));
        if (FarPeer::isAck(from)) mModel.acknowledge(FarPeer::ackEntries(from));
        bool const owed =
                from.msgType != 1 && mVesk.getConfig()->isBussinessSupport(1, from.businessId);
        // Only when it has been delivered; what the session does first comes before.
        if (owed && receiverOf(*frame) == 0) mModel.owe(from.serialNumber);
        deliver(false, frame, [&] { mQueue->receiveFromChannel(frame); });
    }

    // The queue

    void submit(int priority, bool needsAck, FramePtr frame) {
        mModel.admit(priority, needsAck, frame, nullptr);
        mQueue->enqueue(priority, needsAck, std::move(frame));
        settle();
    }

    FramePtr anyFrame() { return newFrame(anyBusiness(), 2, 0); }

    void enqueueAny() {
        FramePtr frame = anyFrame();
        // An old id supersedes what still waits to be acknowledged.
        if (mRandom.chance(300)) frame->msgId = uint16_t(frame->msgId - mRandom.below(60));
        static constexpr int PRIORITIES[] = {-3, 0, 1, 2, 2, 5};
        submit(PRIORITIES[mRandom.below(6)], mRandom.chance(700), std::move(frame));
    }

    // The looper is held inside a write while many frames come from one side.
    void burst() {
        if (mModel.pending() > 5 || mModel.owed() >= QueueModel::BOUND) return;
        static constexpr size_t SIZES[] = {20, 40, 300, 999, 1000, 1001, 1200};
        size_t const kind = mRandom.below(3), size = SIZES[mRandom.below(7)];
        for (size_t n = kind == 2 ? mModel.owed() : 0; n < size; ++n) {
            if (kind == 0) enqueueAny();
            if (kind == 1) submit(1, true, anyFrame());
            if (kind == 2) receive(farFrame());
        }
    }

    void push(PacketPtr packet) {
        mModel.admit(packet->priority(), packet->needRetransmission(), packet->getFrame(),
                     packet.get());
        mQueue->push(packet);
        packet.clear();
        settle();
    }

    PacketPtr ownPacket(int priority) {
        return new VeskQueue::QueuedPacket(priority, mRandom.chance(500), anyFrame());
    }

    void pushOwn() { push(ownPacket(static_cast<int>(mRandom.below(4)))); }

    void dequeueFirst() {
        WeakFrame const first = mModel.take(nullptr);
        auto packet = mQueue->dequeuePacket();
        FramePtr frame = packet == nullptr ? nullptr : packet->getFrame();
        // Of the queue's own packets only the type is known here.
        require(frame == first.lock() || (frame && frame->msgType == 1), "another is the first");
        if (packet == nullptr) return;
        frame.reset();
        if (mRandom.chance(500)) return push(std::move(packet));
        mModel.mayKeep(packet->getFrame());
    }

    void removeOwn() {
        PacketPtr packet = mModel.packetInWrite();
        if (packet != nullptr && mRandom.chance(500)) return push(packet);  // it is pending still
        if (packet == nullptr) push(packet = ownPacket(2));
        mModel.take(packet.get());
        mQueue->removePacket(packet);
        settle();
        mModel.mayKeep(packet->getFrame());
    }

    // Sessions

    static unsigned receiverOf(VeskFrame const& frame) {
        unsigned const id = frame.msgType == 2 ? frame.businessId : frame.reply;
        unsigned const last = frame.msgType == 2 ? BUSINESSES : frame.msgType == 3 ? SESSIONS : 0;
        return id >= 1 && id <= last && businessOf(id) == frame.businessId ? id : 0;
    }

    template <typename Send>
    void deliver(bool local, FramePtr const& frame, Send const& send) {
        if (receiverOf(*frame) != 0) tDelivery = {frame.get(), local};
        send();
        require(!tDelivery.first, "session ", receiverOf(*frame), " has got nothing");
        settle();
        mModel.letGo(frame);
    }

    void onDelivery(uint32_t client, uint32_t id, bool local, FramePtr const& frame) {
        bool const awaited = std::exchange(tDelivery, {}) == Delivery(frame.get(), local);
        require(awaited && id == receiverOf(*frame) && client == CLIENT + id, "session ", id,
                " of client ", client, " has got what was not for it");
        if (frame->msgType == 2 && mRandom.chance(500))
            publish(id, newFrame(businessOf(id), 3, frame->reply));
        if (!local) mModel.owe(frame->serialNumber);
    }

    void publish(unsigned id, FramePtr frame) {
        auto const session = mSessions.getSession(static_cast<uint16_t>(id));
        if (mRandom.chance(250))
            return deliver(true, frame, [&] { session->send(true, frame, 1); });
        mModel.admit(1, true, frame, nullptr);
        session->send(false, frame, 1);
        frame.reset();
        settle();
    }

    void sendThroughSession() {
        auto const id = static_cast<unsigned>(mRandom.between(1, SESSIONS));
        publish(id, newFrame(businessOf(id), mRandom.chance(500) ? 2 : 3, u16Below(20)));
    }

    Vesk& mVesk = *Vesk::getInstance();
    VeskSessionManager& mSessions = *mVesk.getSessionManager();
    std::shared_ptr<VeskQueue> const mQueue = mVesk.getQueue();
    QueueModel mModel{*mQueue};

    testkit::Random mRandom;
    testkit::ShiftedClock mClock{mQueue, STARTS[mRandom.below(4)]};
    // What the far side has written, by the time of its arrival.
    std::multimap<uint64_t, FarPeer::Frame> mArriving;
    std::vector<FarPeer::Frame> mWritten;
    // Thousandths of the writes that take time, and that do something.
    unsigned mSlow = mRandom.chance(500) ? 0 : mRandom.chance(500) ? 100 : 1000;
    unsigned mBusy = mRandom.chance(600) ? 1000 : 0;
    std::thread::id const mThread = std::this_thread::get_id();
};

}  // namespace

void simulate(testkit::Random script, uint64_t minutes) {
    Simulation(std::move(script)).run(minutes);
}

}  // namespace vesk::simulation
