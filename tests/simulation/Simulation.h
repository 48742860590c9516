#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <StreamReader.h>
#include <vesk/Vesk.h>
#include <vesk/testkit/FaultyLink.h>
#include <vesk/testkit/Random.h>
#include <vesk/testkit/ShiftedClock.h>
#include <vesk/testkit/StreamPeer.h>

#include "QueueModel.h"

namespace vesk::simulation {

using Bytes = std::vector<uint8_t>;

/**
 * The live library under a clock that stands still, between local clients and a far peer on a link
 * that does what a seed says. After each event the looper is waited for, so that nothing depends on
 * the machine; every write and every number is compared with the model's.
 *
 * Throws std::runtime_error with the time and what went wrong at the first difference.
 */
class Simulation {
public:
    explicit Simulation(testkit::Random random);
    ~Simulation();

    /**
     * Lives through so many minutes, or until the script that decides is used up; then lets the
     * link be clean and quiet, and looks for remains.
     */
    void run(uint64_t minutes);

    std::map<std::string, uint64_t> const& totals() const { return mModel.totals(); }

private:
    class Host;

    // Time and the link
    void moveTime();
    void exchange();
    void setLink(bool up);
    void farWrite(Bytes bytes);
    void arrive(Bytes const& bytes);
    void settle();
    void finish();

    // What clients and the far side do
    void act();
    void sendThroughSession();
    void answer(VeskSession& session, VeskFrame const& request);
    void publish(VeskSession& session, bool local, std::shared_ptr<VeskFrame> const& frame);
    void enqueueDirectly();
    void replacePending();
    void submit(int priority, bool needsAck, std::shared_ptr<VeskFrame> const& frame);
    Bytes farFrame();
    Bytes nonsenseAck();
    void changeSessions();
    void changeTopics();
    void burst();
    std::shared_ptr<VeskFrame> newFrame(uint8_t topicId, uint8_t business, uint8_t type);
    Bytes newPayload();

    // What the library does
    void receive(Bytes const& bytes);
    void deliver(VeskFrame const& frame, VeskTopic const* topic, std::function<void()> const& act);
    bool fits(VeskSession const& session, VeskFrame const& frame) const;
    void onDelivery(uint32_t client, uint16_t session, std::shared_ptr<VeskFrame> const& frame);
    void onWrite(Bytes bytes);
    void require(bool holds, std::string const& otherwise) const;

    Vesk* const mVesk = Vesk::getInstance();
    VeskSessionManager& mSessions = *mVesk->getSessionManager();
    std::shared_ptr<VeskQueue> const mQueue = mVesk->getQueue();
    testkit::Random mRandom;
    testkit::ShiftedClock mClock;
    uint64_t const mStart = mClock.now();
    bool const mLossless;
    testkit::FaultyLink mOut, mIn;
    testkit::StreamPeer mFar;
    tool::StreamReader mReader;
    uint64_t mUpAgain = 0;  // when the link comes back; 0 while it is there
    uint64_t mPayloads = 0;
    uint16_t mLastSerial = 0;
    std::deque<Bytes> mOutSent, mInSent;  // on a lossless link: what must arrive, in order
    std::vector<std::weak_ptr<VeskFrame>> mFrames;
    std::set<uint16_t> mIds;                           // of the sessions that there are
    std::set<std::pair<uint32_t, uint16_t>> mRemoved;  // providers that their topic may still hold
    int mDeliveries = 0;                               // of the frame that is being routed

    QueueModel mModel;
    bool mHolding = false;  // the looper is held inside a write
    std::mutex mMutex;      // guards the three below, which the looper changes
    std::condition_variable mGate;
    bool mGateShut = false, mBlocked = false;
    std::vector<Bytes> mWritten;
};

}  // namespace vesk::simulation
