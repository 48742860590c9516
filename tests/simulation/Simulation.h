#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <StreamReader.h>
#include <vesk/Vesk.h>
#include <vesk/testkit/FaultyLink.h>
#include <vesk/testkit/Random.h>
#include <vesk/testkit/ShiftedClock.h>
#include <vesk/testkit/StreamPeer.h>

#include "QueueModel.h"
#include "RoutingModel.h"

namespace vesk::simulation {

/** Deletes itself by way of the library: whoever lets go of it under a lock does not return. */
FramePtr trackedFrame(bool withSerial);
/** Takes each lock of the library's facade, as a host's destructor may. */
void callLibrary();

/**
 * The live library under a clock that stands still, between local clients and a far peer on a link
 * that does what a seed says. After each event the looper is waited for, and only one thread acts
 * at a time, so that nothing depends on the machine; every line, write, delivery and number is
 * compared with the models'. The first difference ends the process.
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

    std::map<std::string, uint64_t> const& totals() const { return mQueueModel.totals(); }

private:
    class Host;
    class OwnPacket;
    using PacketPtr = android::sp<VeskQueue::QueuedPacket>;
    struct Route {
        std::vector<RoutingModel::Session> receivers;
        bool local;
        VeskFrame const* frame;
        int deliveries;
    };

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
    void enqueueDirectly();
    void pushOwn();
    void removeOwn();
    void dequeueFirst();
    void replacePending();
    void farFrames();
    void nonsenseAck();
    void joinAndLeave();
    void joinTopicItself();
    void requireReleased();
    void changeTopics();
    void changeHost();
    void burst();
    void lendToOtherQueue();
    void loseLink();
    void actInWrite(Bytes const& bytes);

    void publish(RoutingModel::Session const& from, FramePtr frame);
    void submit(int priority, bool needsAck, FramePtr frame);
    void push(PacketPtr&& packet);
    PacketPtr dequeue();
    void drop(PacketPtr&& packet);
    void remove(PacketPtr const& packet);
    void replace(FramePtr frame);
    void removeByClient(uint32_t client);
    static bool isOf(PacketPtr const& packet, std::weak_ptr<VeskFrame> const& frame);
    PacketPtr ownPacket();
    Bytes farFrame();
    FramePtr anyFrame();
    FramePtr newFrame(uint8_t topicId, uint8_t business, uint8_t type);
    Bytes newPayload();
    android::sp<VeskCallback> newHost();

    // What the library does
    static void sink(char const* tag, char const* message);
    void receive(Bytes const& bytes);
    void route(RoutingModel::Topic const* topic, bool local, FramePtr const& frame,
               std::function<void()> const& act);
    void onDelivery(uint32_t client, uint32_t session, bool local, FramePtr const& frame);
    void onWrite(Bytes bytes);

    Vesk* const mVesk = Vesk::getInstance();
    VeskConfig const& mConfig = *mVesk->getConfig();
    VeskSessionManager& mSessions = *mVesk->getSessionManager();
    std::shared_ptr<VeskQueue> mQueue = mVesk->getQueue();  // the one that acts now
    testkit::Random mRandom;
    testkit::ShiftedClock mClock;
    bool const mLossless;
    testkit::FaultyLink mOut, mIn;
    testkit::StreamPeer mFar;
    tool::StreamReader mReader;
    uint64_t mUpAgain = 0;  // when the link comes back; 0 while it is there
    uint64_t mPayloads = 0, mRound = 0;
    uint16_t mLastSerial = 0;
    std::deque<Bytes> mOutSent, mInSent;  // on a lossless link: what must arrive, in order

    Trace mTrace;
    QueueModel mQueueModel{*mQueue, mTrace};
    QueueModel* mModel = &mQueueModel;  // of the queue that acts now
    RoutingModel mRouting{mConfig, mTrace};
    Route* mRoute = nullptr;
    bool mByClient = false;
    bool mQuiet = false;  // nothing is done any more from inside writes
    std::list<std::weak_ptr<VeskSession>> mAllSessions;
    std::vector<std::weak_ptr<VeskTopic>> mAllTopics;

    std::thread::id const mThread = std::this_thread::get_id();
    unsigned mSlow = 0;  // thousandths of the writes that take time
    bool mHolding = false;
    std::atomic<bool> mGateShut{false}, mBlocked{false};
    std::vector<Bytes> mWritten;
};

}  // namespace vesk::simulation
