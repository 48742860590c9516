#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
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

using Bytes = std::vector<uint8_t>;

/**
 * The live library under a clock that stands still, between local clients and a far peer on a link
 * that does what a seed says. After each event the looper is waited for, so that nothing depends on
 * the machine; every write and every number is compared with the models'.
 *
 * Throws std::runtime_error with the time and what went wrong at the first difference.
 */
class Simulation {
public:
    struct Totals {
        uint64_t events = 0, writes = 0, deliveries = 0, skippedBytes = 0;
    };

    explicit Simulation(testkit::Random random);
    ~Simulation();

    /**
     * Lives through so many minutes, or until the script that decides is used up; then lets the
     * link be clean and quiet, and looks for remains.
     */
    void run(uint64_t minutes);

    Totals const& totals() const { return mTotals; }
    QueueModel::Counters const& counters() const { return mModel.counters(); }

private:
    class Host;
    using Receivers = std::vector<RoutingModel::SessionPtr>;

    static constexpr uint32_t CLIENTS = 5;
    static constexpr char const* TOPICS[] = {"virtualcomm", "test"};

    // Time and the link
    void step();
    void moveTime();
    void carry();
    void exchange();
    void setLink(bool up);
    void arrive(Bytes const& bytes);
    void receive(Bytes const& bytes);
    void settle();
    void finish();

    // What clients and the far side do
    void act();
    void sendThroughSession();
    void enqueueDirectly();
    void replacePending();
    void farSend();
    void farAckNonsense();
    void changeSessions();
    void changeTopics();
    void burst();
    void answer(RoutingModel::Session const& session, VeskFrame const& request);
    void submit(int priority, bool needsAck, std::shared_ptr<VeskFrame> const& frame);
    void publish(RoutingModel::Session const& session, bool local,
                 std::shared_ptr<VeskFrame> const& frame);
    Bytes farFrame();
    std::shared_ptr<VeskFrame> newTracked(bool withSerial);
    std::shared_ptr<VeskFrame> newFrame(uint8_t topicId, uint8_t business, uint8_t type);
    Bytes newPayload();

    // What the library does
    void onWrite(Bytes bytes);
    void onDelivery(uint32_t client, uint32_t session, bool local,
                    std::shared_ptr<VeskFrame> const& frame);
    void expectDelivery(Receivers receivers, bool local);
    void checkDelivered();
    [[noreturn]] void fail(std::string const& what) const;

    testkit::Random mRandom;
    testkit::ShiftedClock mClock;
    std::shared_ptr<VeskQueue> mQueue;
    android::sp<Host> mHost;
    uint64_t mStart;
    bool mLossless;
    bool mUp = true;
    bool mHolding = false;  // the looper is held inside a write
    uint64_t mUpAgain = 0;
    testkit::FaultyLink mOut, mIn;
    testkit::StreamPeer mFar;
    tool::StreamReader mReader;
    RoutingModel mRouting;
    Totals mTotals;
    uint64_t mPayloads = 0;
    std::deque<Bytes> mOutSent, mInSent;  // on a lossless link: what must arrive, in order
    std::vector<std::weak_ptr<VeskFrame>> mFrames;

    Receivers mReceivers;  // of the delivery that is under way
    bool mDelivered = true, mDeliveredLocal = false;

    std::mutex mMutex;  // guards the three below, which the looper changes
    std::condition_variable mGate;
    bool mGateShut = false, mBlocked = false;
    std::vector<Bytes> mWritten;

    QueueModel mModel;
};

}  // namespace vesk::simulation
