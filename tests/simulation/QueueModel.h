#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vesk {
class VeskFrame;
class VeskQueue;
}  // namespace vesk

namespace vesk::simulation {

using Bytes = std::vector<uint8_t>;

/**
 * What the queue has to do, without threads, locks or waiting: told of every event, it says which
 * bytes leave next and what the numbers are then. Bounds and times are written down a second time.
 */
class QueueModel {
public:
    static constexpr size_t BOUND = 1000;

    void admit(uint64_t now, int priority, bool needsAck, std::shared_ptr<VeskFrame> frame);
    bool replace(VeskFrame const& with);
    void owe(uint64_t now, uint16_t serialNumber);
    void acknowledge(uint64_t now, std::vector<std::pair<uint16_t, uint16_t>> const& holdAndSerial);
    void cleanup();

    /** One pass, as far as it gets: whatever is due now goes to the expected writes. */
    void pass(uint64_t now);

    /** While the host's write blocks, the packet in it is still pending. */
    void blockWrites(bool blocked) { mInWrite = blocked ? 1 : 0; }

    /** The writes that were due, in order, since the last call. */
    std::vector<Bytes> takeWrites() { return std::exchange(mWrites, {}); }
    bool expectsWrites() const { return !mWrites.empty(); }

    /** Some frames are acknowledged from inside the write; their bytes say which. */
    static bool ackedInside(Bytes const& write);

    /** Empty when the queue agrees in every number; else what differs. Only between passes. */
    std::string compare(VeskQueue const& queue) const;

    /** Empty when each packet that left the history did so for one reason. */
    std::string balance();

    /** When the next packet or acknowledgement falls due; the largest number where none does. */
    uint64_t nextDeadline() const;

    bool empty() const { return mPending.empty() && mHistory.empty() && mOwed.empty(); }
    /** How much of everything there was. */
    std::map<std::string, uint64_t> const& totals() const { return mTotals; }

private:
    struct Packet {
        int priority;
        uint64_t admitted;
        bool needsAck;
        std::shared_ptr<VeskFrame> frame;
    };
    struct Sent {
        uint64_t time;
        uint16_t serialNumber, msgId;
    };
    struct Owed {
        uint64_t time;
        uint16_t serialNumber;
    };

    void insert(Packet packet);
    void expire(uint64_t now);
    void batchAcks(uint64_t now);
    bool record(uint64_t now, Packet const& packet);
    void measured(uint32_t delay);

    std::list<Packet> mPending;
    std::list<Sent> mHistory;
    std::vector<Owed> mOwed;
    std::vector<Bytes> mWrites;
    std::map<std::string, uint64_t> mTotals;
    size_t mInWrite = 0;
    uint32_t mSent = 0, mReceived = 0, mDelay = 0, mSlow = 0;
};

}  // namespace vesk::simulation
