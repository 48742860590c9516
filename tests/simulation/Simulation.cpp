#include "Simulation.h"

#include <algorithm>
#include <stdexcept>

#include <vesk/testkit/Await.h>

namespace vesk::simulation {

using testkit::FarPeer;
using testkit::FaultyLink;
using testkit::Random;

namespace {

FaultyLink::Faults faultsFor(Random& random, bool lossless) {
    if (lossless) {
        return {};
    }
    auto const upTo = [&random](size_t limit) {
        return static_cast<unsigned>(random.below(limit));
    };
    return {upTo(150), upTo(80), upTo(60), upTo(150), random.between(0, 900)};
}

uint16_t u16(Bytes const& bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

}  // namespace

class Simulation::Host : public VeskCallback {
public:
    explicit Host(Simulation* simulation) : mSimulation(simulation) {}

    void receive(uint32_t client, uint32_t session, bool,
                 std::shared_ptr<VeskFrame> const& frame) override {
        mSimulation->onDelivery(client, static_cast<uint16_t>(session), frame);
    }
    void sendToChannel(Bytes bytes) override { mSimulation->onWrite(std::move(bytes)); }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

private:
    Simulation* mSimulation;
};

Simulation::Simulation(Random random)
    : mRandom(std::move(random)),
      mLossless(mRandom.chance(300)),
      mOut(mRandom, faultsFor(mRandom, mLossless)),
      mIn(mRandom, faultsFor(mRandom, mLossless)),
      mFar(mRandom, 100),
      mReader(*mVesk->getConfig(), [this](Bytes const& bytes) { arrive(bytes); }) {
    mVesk->init(new Host(this));
    mVesk->onChannelAvailable(false);
}

Simulation::~Simulation() {
    for (uint16_t id : mIds) {
        mSessions.removeSession(id);
    }
    mVesk->removeTopic("virtualcomm");
    mVesk->removeTopic("test");
    mVesk->onChannelAvailable(false);
}

void Simulation::require(bool holds, std::string const& otherwise) const {
    if (holds) return;
    throw std::runtime_error("after " + std::to_string(mClock.now() - mStart) +
                             " ms: " + otherwise);
}

void Simulation::run(uint64_t minutes) {
    uint64_t const end = mStart + minutes * 60000;
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
    uint64_t const deadline = mModel.nextDeadline();
    uint64_t const left = deadline > mClock.now() ? deadline - mClock.now() : 0;
    uint64_t const step = left > 1 && left < 2000 && mRandom.chance(400) ? left - mRandom.below(2)
                                                                         : mRandom.below(250);
    mClock.jump(static_cast<int64_t>(step));
    settle();
}

void Simulation::settle() {
    mModel.pass(mClock.now());
    mQueue->wake();
    require(testkit::eventually([this] { return mQueue->idle(); }), "the looper finds no rest");
    std::vector<Bytes> written;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        written.swap(mWritten);
    }
    require(written == mModel.takeWrites(), "not written was what was due, in that order");
    std::string const wrong = mModel.compare(*mQueue) + mModel.balance();
    require(wrong.empty(), wrong);
    for (Bytes& bytes : written) {
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
    for (Bytes& ack : mFar.dueAcks(now)) {
        farWrite(std::move(ack));
    }
    auto const chunks = mIn.read(now);
    for (Bytes const& chunk : chunks) {
        mReader.feed(chunk.data(), chunk.size());
    }
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
    mVesk->onChannelAvailable(up);
    if (!up) mModel.cleanup();
}

void Simulation::arrive(Bytes const& bytes) {
    if (mLossless) {
        require(!mInSent.empty() && bytes == mInSent.front(),
                "a lossless link has brought a frame twice, late or changed");
        mInSent.pop_front();
    }
    receive(bytes);
    settle();
}

void Simulation::receive(Bytes const& bytes) {
    auto const frame = VeskFrame::obtainFrame(false);
    frame->unSerialze(bytes);
    mFrames.push_back(frame);
    auto const topic = mVesk->getTopic(frame->topicId);
    bool const data = frame->msgType != 1 &&
                      mVesk->getConfig()->isBussinessSupport(frame->topicId, frame->businessId);
    deliver(*frame, data ? topic.get() : nullptr, [&] { mQueue->receiveFromChannel(frame); });
    if (data) {
        mModel.owe(mClock.now(), frame->serialNumber);
    } else if (frame->msgType == 1 && frame->topicId == 0xAA && frame->businessId == 0xAA &&
               frame->reply == frame->data.size() / 4) {
        std::vector<std::pair<uint16_t, uint16_t>> entries;
        for (size_t at = 0; at + 4 <= frame->data.size(); at += 4) {
            entries.emplace_back(u16(frame->data, at), u16(frame->data, at + 2));
        }
        mModel.acknowledge(mClock.now(), entries);
    }
}

bool Simulation::fits(VeskSession const& session, VeskFrame const& frame) const {
    bool const addressed = frame.msgType == 2
                                   ? session.type() == 2
                                   : frame.msgType == 3 && frame.reply == session.sessionId();
    return addressed && session.topicId() == frame.topicId &&
           session.businessId() == frame.businessId;
}

void Simulation::deliver(VeskFrame const& frame, VeskTopic const* topic,
                         std::function<void()> const& act) {
    bool const due = std::any_of(mIds.begin(), mIds.end(), [&](uint16_t id) {
        auto const session = mSessions.getSession(id);
        return topic && session->getTopic().get() == topic && fits(*session, frame);
    });
    mDeliveries = 0;
    act();
    require(mDeliveries <= (topic ? 1 : 0), "a frame was delivered more often than it should");
    require(mDeliveries == 1 || !due, "a frame has reached nobody");
}

void Simulation::onDelivery(uint32_t client, uint16_t id, std::shared_ptr<VeskFrame> const& frame) {
    ++mDeliveries;
    auto const session = mSessions.getSession(id);
    bool const known = session && session->clientId() == client && fits(*session, *frame);
    require(known || mRemoved.count({client, id}) != 0, "a frame has reached session " +
                                                                std::to_string(id) +
                                                                ", to which it was not addressed");
    if (known && frame->msgType == 2 && mRandom.chance(500)) answer(*session, *frame);
}

void Simulation::onWrite(Bytes bytes) {
    if (QueueModel::ackedInside(bytes)) FarPeer(mQueue).acknowledge(u16(bytes, 8));
    std::unique_lock<std::mutex> lock(mMutex);
    mWritten.push_back(std::move(bytes));
    if (mGateShut) {
        mBlocked = true;
        mGate.notify_all();
        mGate.wait(lock, [this] { return !mGateShut; });
        mBlocked = false;
    }
}

void Simulation::finish() {
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
    require(mModel.empty(), "the link has been clean and quiet for 5 s and packets are left");
    require(mOutSent.empty() && mInSent.empty(), "a lossless link has swallowed a frame");
    submit(1, false, newFrame(1, 1, 2));  // the last one cleared away is let go of with the next
    settle();
    require(std::all_of(mFrames.begin(), mFrames.end(), [](auto const& f) { return f.expired(); }),
            "frames are still alive with nothing pending");
}

}  // namespace vesk::simulation
