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

using testkit::eventually;
using testkit::Random;
using PacketPtr = android::sp<VeskQueue::QueuedPacket>;

constexpr uint64_t HIGH = uint64_t{1} << 32, MINUTE = 60000;
/** Half of them beyond 32 bits, two where 32 bits wrap after some minutes. */
constexpr uint64_t STARTS[] = {1000000, HIGH - 3 * MINUTE, HIGH + 1, 5 * HIGH - MINUTE};
constexpr char const* TOPICS[] = {"virtualcomm", "test"};
struct Address {
    uint8_t topicId, business;
};
/** Each has a provider, sessions 1 to 4, and a consumer, 5 to 8. */
constexpr Address ADDRESSES[] = {{1, 1}, {1, 2}, {1, 3}, {2, 1}};
constexpr unsigned SESSIONS = 8, CLIENT = 100;  // the client of session 1 is 101

class Simulation;
Simulation* gSimulation = nullptr;  // null at process exit

/** What is destroyed under the lock of the queue or of the facade never returns from here. */
void callLibrary() {
    if (!gSimulation) return;
    Vesk::getInstance()->getQueue()->owedAcks();
    Vesk::getInstance()->notifyTopicChanged(true, "");
}

FramePtr calling(VeskFrame* frame) {
    return {frame, [](VeskFrame* old) {
                callLibrary();
                delete old;
            }};
}

struct OwnPacket : VeskQueue::QueuedPacket {
    using QueuedPacket::QueuedPacket;
    ~OwnPacket() override { callLibrary(); }
};

class Simulation {
public:
    explicit Simulation(Random script) : mRandom(std::move(script)) {
        mVesk.onChannelAvailable(false);
        changeHost();
        for (char const* topic : TOPICS)
            mVesk.createTopic(topic, false);
        for (unsigned id = 1; id <= SESSIONS; ++id) {
            auto const [topic, business] = addressOf(id);
            int const made = mSessions.createSession(
                    static_cast<int>(CLIENT + id), id <= 4 ? 2 : 1, TOPICS[topic - 1],
                    mConfig.getBussinessIdById(topic, business), false);
            require(made == static_cast<int>(id), "createSession has returned ", made);
        }
        gSimulation = this;
        quillex::Log::setSink([](char const* tag, char const* message) {
            if (tag == std::string("VeskQueue")) gSimulation->mModel.logged(message);
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
            act(&Action::weight);
            settle();
        }
        mQuiet = true;
        keep(nullptr);
        // For 2 s what is on its way may still come, and be answered.
        for (int quiet = 0; quiet < 7000; quiet += 100) {
            mClock.jump(100);
            settle();
            hearFarSide();
        }
        require(mModel.empty(), "it has been quiet for 5 s and packets are left");
        for (uint32_t id = 1; id <= SESSIONS; ++id)
            mSessions.removeSessionByClient(CLIENT + id);
        for (uint16_t id = 1; id <= 2; ++id) {
            std::weak_ptr<VeskTopic> const topic = mVesk.getTopic(id);
            require(mVesk.removeTopic(TOPICS[id - 1]) == id && topic.expired(), "a topic is kept");
        }
    }

private:
    struct Host : VeskCallback {
        ~Host() override { callLibrary(); }
        void receive(uint32_t client, uint32_t id, bool local, FramePtr const& frame) override {
            gSimulation->onDelivery(client, id, local, frame);
        }
        void sendToChannel(Bytes bytes) override { gSimulation->onWrite(bytes); }
        void notifyTopicChanged(bool, std::string) override {}
        void notifyBusinessChanged(bool, std::string, std::string) override {}
    };
    struct Delivery {
        unsigned id;  // 0: nobody is to get it
        VeskFrame const* frame;
        bool local;
    };
    struct Action {
        size_t weight, weightInWrite;
        void (Simulation::*act)();
    };

    void act(size_t Action::*weight) {
        // What a script does that is used up comes first, and begins nothing new.
        static constexpr Action ACTIONS[] = {
                {0, 30, &Simulation::answerAtOnce}, {400, 0, &Simulation::sendThroughSession},
                {90, 10, &Simulation::enqueueAny},  {40, 0, &Simulation::pushOwn},
                {15, 20, &Simulation::removeOwn},   {15, 20, &Simulation::dequeueFirst},
                {385, 30, &Simulation::farFrames},  {10, 0, &Simulation::changeHost},
                {0, 10, &Simulation::burst},        {5, 1, &Simulation::loseLink}};
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
        require(eventually(rests), "the looper finds no rest");
        mModel.rest();
        std::vector<FarPeer::Ack> acks;
        for (FarPeer::Frame const& frame : std::exchange(mWritten, {}))
            if (!FarPeer::isAck(frame) && mRandom.chance(mQuiet ? 1000 : 700))
                acks.push_back({u16Below(300), frame.serialNumber});
        for (int times = mRandom.chance(100) ? 2 : 1; times > 0 && !acks.empty(); --times)
            mArriving.emplace(now() + mRandom.below(2000), FarPeer::ackFrame(acks));
    }

    void moveTime() {
        // Just before and just at a deadline is where a bound that is off by one shows.
        uint64_t const left = mModel.nextDeadline() - now();
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
        mModel.cleanup();
        mVesk.onChannelAvailable(false);
    }

    void onWrite(Bytes const& bytes) {
        mModel.writing(bytes);
        mWritten.push_back(FarPeer::decode(bytes));
        if (!mQuiet && mRandom.chance(mBusy)) act(&Action::weightInWrite);
        if (!mQuiet && mRandom.chance(mSlow))
            mClock.jump(1 + static_cast<int64_t>(mRandom.below(30)));
        mModel.written();
    }

    // Callbacks come and go, and so does the time that their writes take.
    void changeHost() {
        static constexpr unsigned SLOW[] = {0, 0, 100, 1000};
        mSlow = SLOW[mRandom.below(4)];
        mBusy = mRandom.chance(500) ? 1000 : 0;
        mVesk.init(new Host);
    }

    // Frames

    uint16_t u16Below(size_t limit) { return static_cast<uint16_t>(mRandom.below(limit)); }

    static Address addressOf(unsigned id) { return ADDRESSES[(id - 1) % 4]; }
    Address anyAddress() { return addressOf(unsigned(mRandom.between(1, 4))); }

    Bytes newPayload() {
        return Bytes(mRandom.between(2, mRandom.chance(50) ? 4000 : 60), ++mPayloads);
    }

    FramePtr newFrame(Address to, uint8_t type, uint16_t reply) {
        auto frame = calling(new VeskFrame(*VeskFrame::obtainFrame(true)));
        frame->topicId = to.topicId;
        frame->businessId = to.business;
        frame->msgType = type;
        frame->reply = reply;
        frame->msgId = frame->serialNumber;
        frame->data = newPayload();
        return frame;
    }

    FarPeer::Frame farFrame(unsigned foreign) {
        Address to = anyAddress();
        size_t type = mRandom.between(2, 3);
        if (mRandom.chance(foreign)) to.business = static_cast<uint8_t>(mRandom.below(256));
        if (mRandom.chance(foreign)) type = mRandom.below(6);
        return {to.topicId,   to.business,     static_cast<uint8_t>(type),
                u16Below(20), u16Below(65536), u16Below(65536),
                newPayload()};
    }

    void farFrames() {
        // More than the bound are forgotten, and only at rest is it certain that they are.
        if (mModel.owed() >= QueueModel::BOUND) return;
        for (size_t n = mRandom.chance(100) ? mRandom.between(2, 12) : 1; n > 0; --n)
            receive(farFrame(50));
    }

    void answerAtOnce() {
        FarPeer::Frame const& frame = mWritten.back();
        if (!FarPeer::isAck(frame)) receive(FarPeer::ackFrame({{0, frame.serialNumber}}));
    }

    void receive(FarPeer::Frame const& from) {
        auto const frame = calling(new VeskFrame);
        frame->unSerialze(FarPeer::encode(from));
        mModel.expect("receiveFromChannel:", from.serialNumber, ",msgType:", +from.msgType,
                      ",msg:", from.msgId);
        if (FarPeer::isAck(from)) mModel.acknowledge(FarPeer::ackEntries(from));
        bool const owed =
                from.msgType != 1 && mConfig.isBussinessSupport(from.topicId, from.businessId);
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

    FramePtr anyFrame() { return newFrame(anyAddress(), 2, 0); }

    void enqueueAny() {
        FramePtr frame = anyFrame();
        // An old id supersedes what still waits to be acknowledged.
        if (mRandom.chance(300)) frame->msgId = uint16_t(frame->msgId - mRandom.below(60));
        static constexpr int PRIORITIES[] = {-3, 0, 1, 2, 2, 5};
        submit(PRIORITIES[mRandom.below(6)], mRandom.chance(700), std::move(frame));
    }

    // The looper is held inside a write while many frames come from one side.
    void burst() {
        if (mModel.pending() > 5) return;
        static constexpr size_t SIZES[] = {20, 40, 300, 999, 1000, 1001, 1200};
        size_t const kind = mRandom.below(3), size = SIZES[mRandom.below(7)];
        for (size_t n = kind == 2 ? mModel.owed() : 0; n < size; ++n) {
            if (kind == 0) enqueueAny();
            if (kind == 1) submit(1, true, anyFrame());
            if (kind == 2) receive(farFrame(0));
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
        return new OwnPacket(priority, mRandom.chance(500), anyFrame());
    }

    void pushOwn() { push(ownPacket(static_cast<int>(mRandom.below(4)))); }

    static bool isOf(PacketPtr const& packet, WeakFrame const& frame) {
        if (packet == nullptr) return frame.expired();
        return packet->getFrame() == frame.lock() || packet->getFrame()->msgType == 1;
    }

    /** For a while: what followed the packet comes and goes without it. */
    void keep(PacketPtr packet) {
        bool const sent = packet != nullptr && packet->sendTime() != 0;
        if (!sent) std::swap(packet, mKept);
        if (packet != nullptr) mModel.mayKeep(packet->getFrame());
    }

    void dequeueFirst() {
        auto const taken = mModel.take(nullptr);
        auto packet = mQueue->dequeuePacket();
        require(isOf(packet, taken.first), "dequeuePacket has given something else than the first");
        settle();
        packet != nullptr&& mRandom.chance(500) ? push(std::move(packet)) : keep(std::move(packet));
    }

    void removeOwn() {
        PacketPtr packet = mModel.packetInWrite();
        if (packet != nullptr && mRandom.chance(500)) return push(packet);  // it is pending still
        if (packet == nullptr) push(packet = ownPacket(2));
        for (int times = 0; times < 2; ++times) {  // nothing happens the second time
            auto const taken = mModel.take(packet.get());
            require(isOf(mQueue->removePacket(packet), taken.second),
                    "removePacket has returned something else than the next one");
            settle();
        }
        keep(std::move(packet));
    }

    // Sessions

    static unsigned receiverOf(VeskFrame const& frame) {
        for (unsigned id = 1; id <= SESSIONS; ++id) {
            auto const [topic, business] = addressOf(id);
            if (frame.topicId != topic || frame.businessId != business) continue;
            if (frame.msgType == 2 || (frame.msgType == 3 && frame.reply == id)) return id;
        }
        return 0;
    }

    template <typename Send>
    void deliver(bool local, FramePtr const& frame, Send const& send) {
        Delivery delivery{receiverOf(*frame), frame.get(), local};
        Delivery* const outer = std::exchange(tDelivery, &delivery);
        send();
        tDelivery = outer;
        require(delivery.id == 0, "session ", delivery.id, " has got nothing");
        settle();
        mModel.letGo(frame);
    }

    void onDelivery(uint32_t client, uint32_t id, bool local, FramePtr const& frame) {
        unsigned const expected = std::exchange(tDelivery->id, 0);
        require(id == expected && client == CLIENT + id && local == tDelivery->local &&
                        frame.get() == tDelivery->frame,
                "session ", id, " of client ", client, " has got what was not for it");
        if (frame->msgType == 2 && mRandom.chance(500))
            publish(id, newFrame(addressOf(id), 3, frame->reply));
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
        publish(id, newFrame(addressOf(id), mRandom.chance(500) ? 2 : 3, u16Below(20)));
    }

    Vesk& mVesk = *Vesk::getInstance();
    VeskConfig const& mConfig = *mVesk.getConfig();
    VeskSessionManager& mSessions = *mVesk.getSessionManager();
    std::shared_ptr<VeskQueue> const mQueue = mVesk.getQueue();
    QueueModel mModel{*mQueue};

    Random mRandom;
    testkit::ShiftedClock mClock{mQueue, STARTS[mRandom.below(4)]};
    std::multimap<uint64_t, FarPeer::Frame>
            mArriving;  // what the far side has written, by its time
    std::vector<FarPeer::Frame> mWritten;
    uint8_t mPayloads = 0;
    unsigned mSlow = 0, mBusy = 0;  // thousandths of the writes that take time, or do something
    PacketPtr mKept;
    static thread_local Delivery* tDelivery;  // the innermost under way

    std::thread::id const mThread = std::this_thread::get_id();
    bool mQuiet = false;  // writes take no time, and nothing is done from inside them
};

thread_local Simulation::Delivery* Simulation::tDelivery = nullptr;

}  // namespace

void simulate(Random script, uint64_t minutes) {
    Simulation(std::move(script)).run(minutes);
}

}  // namespace vesk::simulation
