#include "Simulation.h"

#include <vesk/testkit/Await.h>

#include <quillex/Log.h>

#include "SimulatedWait.h"

namespace vesk::simulation {

using testkit::FarPeer;
using testkit::FaultyLink;
using testkit::Random;

namespace {

constexpr uint64_t HIGH = uint64_t{1} << 32, MINUTE = 60000;
/** Half of them beyond 32 bits, two where 32 bits wrap after some minutes. */
constexpr uint64_t STARTS[] = {1000000, HIGH - 3 * MINUTE, HIGH + 1, 5 * HIGH - MINUTE};

Simulation* gSimulation = nullptr;

FaultyLink::Faults faultsFor(Random& random, bool lossless) {
    if (lossless) {
        return {};
    }
    auto const upTo = [&random](size_t limit) {
        return static_cast<unsigned>(random.below(limit));
    };
    return {upTo(150), upTo(80), upTo(60), upTo(150), random.between(0, 900)};
}

}  // namespace

class Simulation::Host : public VeskCallback {
public:
    explicit Host(Simulation* simulation) : mSimulation(simulation) {}

    void receive(uint32_t client, uint32_t session, bool local, FramePtr const& frame) override {
        mSimulation->onDelivery(client, session, local, frame);
    }
    void sendToChannel(Bytes bytes) override { mSimulation->onWrite(std::move(bytes)); }
    void notifyTopicChanged(bool added, std::string topic) override {
        if (!topic.empty()) tell("topic", added, topic);
    }
    void notifyBusinessChanged(bool added, std::string topic, std::string business) override {
        tell("business", added, topic + " " + business);
    }

protected:
    ~Host() override {
        if (gSimulation) callLibrary();  // not at process exit
    }

private:
    void tell(char const* what, bool added, std::string const& names) {
        mSimulation->mTrace.happened(text(what, added ? " + " : " - ", names));
    }

    Simulation* mSimulation;
};

android::sp<VeskCallback> Simulation::newHost() {
    return new Host(this);
}

void callLibrary() {
    static auto const forNobody = std::make_shared<VeskFrame>();
    forNobody->msgType = 2;
    Vesk& vesk = *Vesk::getInstance();
    vesk.getQueue()->owedAcks();
    vesk.getSessionManager()->getSession(1);
    vesk.notifyTopicChanged(true, "");
    for (uint16_t id : {uint16_t{1}, uint16_t{2}})
        if (auto const topic = vesk.getTopic(id)) topic->receive(true, forNobody);
}

FramePtr trackedFrame(bool withSerial) {
    return {new VeskFrame(*VeskFrame::obtainFrame(withSerial)), [](VeskFrame* frame) {
                callLibrary();
                delete frame;
            }};
}

Simulation::Simulation(Random random)
    : mRandom(std::move(random)),
      mClock(mQueue, STARTS[mRandom.below(4)]),
      mLossless(mRandom.chance(300)),
      mOut(mRandom, faultsFor(mRandom, mLossless)),
      mIn(mRandom, faultsFor(mRandom, mLossless)),
      mFar(mRandom, 100),
      mReader(mConfig, [this](Bytes const& bytes) { arrive(bytes); }) {
    mVesk->onChannelAvailable(false);
    changeHost();
    gSimulation = this;
    quillex::Log::setSink(&Simulation::sink);
}

Simulation::~Simulation() {
    quillex::Log::setSink(nullptr);
    gSimulation = nullptr;
}

void Simulation::sink(char const* tag, char const* message) {
    Simulation& self = *gSimulation;
    std::string const name = tag;
    if (name == "VeskQueue" && self.mModel->logged(message)) return;
    self.mTrace.happened(name + " " + (self.mByClient && name[0] == '[' ? "sizes" : message));
}

void Simulation::run(uint64_t minutes) {
    uint64_t const end = mClock.now() + minutes * MINUTE;
    while (mClock.now() < end && !mRandom.exhausted()) {
        moveTime();
        if (mUpAgain != 0 && mClock.now() >= mUpAgain) setLink(true);
        exchange();
        act();
        settle();
    }
    finish();
}

void Simulation::moveTime() {
    // Just before and just at a deadline is where a bound that is off by one shows.
    uint64_t const deadline = mModel->nextDeadline();
    uint64_t const left = deadline > mClock.now() ? deadline - mClock.now() : 0;
    uint64_t const step = left > 1 && left < 2000 && mRandom.chance(400) ? left - mRandom.below(2)
                                                                         : mRandom.below(250);
    mClock.jump(static_cast<int64_t>(step));
    settle();
}

// From inside a write, and while the looper is held in one, there is nothing to wait for.
void Simulation::settle() {
    if (mHolding || std::this_thread::get_id() != mThread) return;
    ++mRound;
    require(testkit::eventually([this] { return asleep(*mQueue, mRound); }),
            "the looper finds no rest");
    mModel->rest();
    mTrace.requireNothingLeft();
    for (Bytes& bytes : std::exchange(mWritten, {})) {
        if (mUpAgain != 0) continue;
        if (mLossless) mOutSent.push_back(bytes);
        mOut.write(mClock.now(), std::move(bytes));
    }
}

void Simulation::exchange() {
    uint64_t const now = mClock.now();
    for (Bytes const& chunk : mOut.read(now)) {
        for (FarPeer::Frame const& frame : mFar.read(now, chunk)) {
            if (!mLossless) continue;
            require(!mOutSent.empty() && FarPeer::encode(frame) == mOutSent.front(),
                    "a lossless link has delivered a frame twice, late or changed");
            mOutSent.pop_front();
        }
    }
    for (Bytes& ack : mFar.dueAcks(now))
        farWrite(std::move(ack));
    auto const chunks = mIn.read(now);
    for (Bytes const& chunk : chunks)
        mReader.feed(chunk.data(), chunk.size());
    if (chunks.empty() && mReader.doubtful()) mReader.abandon();
}

void Simulation::farWrite(Bytes bytes) {
    if (mUpAgain != 0) return;
    if (mLossless) mInSent.push_back(bytes);
    mIn.write(mClock.now(), std::move(bytes));
}

void Simulation::setLink(bool up) {
    mUpAgain = up ? 0 : mClock.now() + mRandom.between(1, 3000);
    mOut.cut();
    mIn.cut();
    mFar.reset();
    mReader.reset();
    mOutSent.clear();
    mInSent.clear();
    if (!up) mModel->cleanup();
    mVesk->onChannelAvailable(up);
}

void Simulation::arrive(Bytes const& bytes) {
    if (mLossless) {
        require(!mInSent.empty() && bytes == mInSent.front(),
                "a lossless link has brought a frame twice, late or changed");
        mInSent.pop_front();
    }
    receive(bytes);
}

void Simulation::receive(Bytes const& bytes) {
    auto frame = trackedFrame(false);
    frame->unSerialze(bytes);
    mTrace.expect(text("VeskQueue receiveFromChannel:", frame->serialNumber,
                       ",msgType:", +frame->msgType, ",msg:", frame->msgId));
    bool const ack = frame->msgType == 1;
    if (ack && frame->topicId == 0xAA && frame->businessId == 0xAA) mModel->acknowledge(*frame);
    bool const data = !ack && mConfig.isBussinessSupport(frame->topicId, frame->businessId);
    auto const* const topic = data ? mRouting.topic(frame->topicId) : nullptr;
    // Owed only when it has been delivered; what the session does first comes before.
    if (data && RoutingModel::receivers(topic, *frame).empty()) mModel->owe(frame->serialNumber);
    route(topic, false, frame, [&] { mQueue->receiveFromChannel(frame); });
    mModel->letGo(frame);
    frame.reset();
    settle();
}

void Simulation::route(RoutingModel::Topic const* topic, bool local, FramePtr const& frame,
                       std::function<void()> const& act) {
    Route route{RoutingModel::receivers(topic, *frame), local, frame.get(), 0};
    Route* const outer = std::exchange(mRoute, &route);
    act();
    mRoute = outer;
    require(route.deliveries == (route.receivers.empty() ? 0 : 1),
            text("a frame has reached ", route.deliveries, " sessions"));
}

void Simulation::onDelivery(uint32_t client, uint32_t id, bool local, FramePtr const& frame) {
    Route& route = *mRoute;
    auto const is = [&](auto const& one) { return one.client == client && one.id == id; };
    auto const session = std::find_if(route.receivers.begin(), route.receivers.end(), is);
    require(session != route.receivers.end() && local == route.local && frame.get() == route.frame,
            text("delivered to session ", id, " of client ", client, " was not what should be"));
    ++route.deliveries;
    auto const present = mRouting.sessions().find(session->id);
    if (frame->msgType == 2 && present != mRouting.sessions().end() &&
        present->second.number == session->number && mRandom.chance(500)) {
        auto answer = newFrame(frame->topicId, frame->businessId, 3);
        answer->reply = frame->reply;
        publish(*session, std::move(answer));
    }
    if (!local) mModel->owe(frame->serialNumber);
}

void Simulation::onWrite(Bytes bytes) {
    mModel->writing(bytes);
    if (!mQuiet) actInWrite(bytes);
    if (mRandom.chance(mSlow)) mClock.jump(static_cast<int64_t>(mRandom.between(1, 30)));
    mWritten.push_back(std::move(bytes));
    mBlocked = mGateShut.load();
    require(testkit::eventually([this] { return !mGateShut; }), "the looper is not let go");
    mModel->written();
}

void Simulation::finish() {
    mQuiet = true;
    mSlow = 0;
    mOut.mend();
    mIn.mend();
    mFar.forgetNothing();
    if (mUpAgain != 0) setLink(true);
    // For 2 s what is on its way may still come, and be answered; from then on it is quiet.
    for (int quiet = 0; quiet < 7000; quiet += 100) {
        mClock.jump(100);
        settle();
        exchange();
    }
    require(mModel->empty(), "the link has been clean and quiet for 5 s and packets are left");
    require(mOutSent.empty() && mInSent.empty(), "a lossless link has swallowed a frame");
    for (uint32_t client = 0; client < 5; ++client)
        removeByClient(client);
    for (size_t i = 0; i < mAllTopics.size(); ++i) {
        auto const left = mRouting.topics()[i];
        auto const topic = mAllTopics[i].lock();
        for (auto const& table : {left.all, left.providers}) {
            for (auto const& entry : table) {
                mTrace.expect(mRouting.leave(entry.second));
                topic->removeSession(entry.first);
            }
        }
    }
    for (uint16_t id : {uint16_t{1}, uint16_t{2}}) {
        mRouting.removeTopic(id);
        mVesk->removeTopic(mConfig.getTopicIdById(id));
    }
    requireReleased();
    require(std::all_of(mAllTopics.begin(), mAllTopics.end(),
                        [](auto const& topic) { return topic.expired(); }),
            "a removed topic is held without a session");
    settle();
}

}  // namespace vesk::simulation
