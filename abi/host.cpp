// A host that was built before, with today's library: scripts/check-abi compiles it against the
// headers that are kept in abi/. It looks at what a host has compiled in: the slots of its virtual
// table, the members that inline functions read, the objects that it makes itself, the constants.

#undef NDEBUG
#include <vesk/Vesk.h>
#include <vesk/VeskCC.h>
#include <thread>

#include <cassert>
#include <condition_variable>
#include <iostream>
#include <sstream>

using namespace vesk;
using QueuedPacket = VeskQueue::QueuedPacket;

struct Host : VeskCallback {
    void receive(uint32_t client, uint32_t session, bool local,
                 std::shared_ptr<VeskFrame> const& frame) override {
        see("receive", client, session, local, frame->data.at(0));
    }
    void sendToChannel(std::vector<uint8_t> bytes) override { see("send", bytes.size()); }
    void notifyTopicChanged(bool added, std::string topic) override { see("topic", added, topic); }
    void notifyBusinessChanged(bool added, std::string topic, std::string business) override {
        see("business", added, topic, business);
    }
    template <typename... Parts>
    void see(Parts const&... parts) {
        std::ostringstream line;
        ((line << parts << ' '), ...);
        std::lock_guard<std::mutex> lock(mMutex);
        mSeen = line.str();
        mCond.notify_all();
    }
    bool saw(std::string const& line) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCond.wait_for(lock, std::chrono::seconds(20), [&] { return mSeen == line + ' '; });
    }
    std::mutex mMutex;
    std::condition_variable mCond;
    std::string mSeen;
};

static std::shared_ptr<VeskFrame> request(uint8_t payload) {
    auto frame = VeskFrame::obtainFrame(false);
    frame->topicId = 2;
    frame->businessId = 1;
    frame->msgType = 2;
    frame->reply = 0x0605;
    frame->serialNumber = 0x0807;
    frame->msgId = 0x0A09;
    frame->data = {payload};
    return frame;
}

static void checkObjectsOfItsOwn() {
    std::vector<uint8_t> bytes;
    request('x')->serialze(bytes);
    assert((bytes == std::vector<uint8_t>{0x55, 1, 0, 2, 1, 2, 5, 6, 7, 8, 9, 0x0A, 'x'}));
    VeskFeedback feedback;
    feedback.sendPackets(3);
    feedback.receivePackets(5);
    feedback.updateDelay(2000);
    feedback.updateDelay(3000);
    assert(feedback.sentPackets() == 3 && feedback.receivedPackets() == 5);
    assert(feedback.delay() == 3000 && feedback.slowCount() == 2);
    VeskCC cc;
    cc.updateDelay(2000);
    assert(cc.slowCount() == 1);
}

static void checkQueue(Host& host, VeskQueue& queue) {
    android::sp<QueuedPacket> const packet(new QueuedPacket(1, true, request('q')));
    packet->updateEnqueueTime(uint64_t{11} << 32);
    android::sp<QueuedPacket> copy(new QueuedPacket(*packet));
    assert(copy->priority() == 1 && copy->needRetransmission() && copy->getFrame()->data[0] == 'q');
    assert(copy->enqueueTime() == uint64_t{11} << 32 && copy->sendTime() == 0);
    {
        std::lock_guard<std::mutex> lock(queue.mutex());
        assert(queue.enqueuePacket(copy) && queue.size() == 1 && !queue.empty());
    }
    queue.wake();
    assert(host.saw("send 13"));
    assert(copy->sendTime() >= copy->enqueueTime() && copy->enqueueTime() < uint64_t{11} << 32);
    while (!queue.idle())  // it counts when the write has returned
        std::this_thread::yield();
    assert(queue.awaitingAck() == 1 && queue.feedback().sentPackets() == 1);
}

static void checkSession(Host& host, VeskSession& session) {
    assert(session.clientId() == 70001 && session.topicId() == 2 && session.businessId() == 1);
    assert(session.flag() && session.type() == VeskSessionManager::PROVIDER);
    std::string const target = "receive 70001 " + std::to_string(session.sessionId());
    session.send(true, request('l'), 1);
    assert(host.saw(target + " 1 l"));
    Vesk::getInstance()->getQueue()->receiveFromChannel(request('r'));
    assert(host.saw(target + " 0 r"));
}

int main() {
    checkObjectsOfItsOwn();
    auto* const host = new Host;
    auto* const vesk = Vesk::getInstance();
    vesk->init(host);
    assert(vesk->createTopic("test", false) == 2 && host->saw("topic 1 test"));
    auto* const sessions = vesk->getSessionManager();
    int const refused = sessions->createSession(1, 0, "test", "test", false);
    assert(refused == VeskSessionManager::CREATE_FAILED);
    auto const id = sessions->createSession(70001, 2, "test", "test", true);
    assert(host->saw("business 1 test test"));
    checkQueue(*host, *vesk->getQueue());
    checkSession(*host, *sessions->getSession(static_cast<uint16_t>(id)));
    std::cout << "a host that was built before runs as it did" << std::endl;
}
