// libvesk on a stream, with the host kit's reader. Writes each frame by itself, or all that wait at
// once through the kit's outbox. A conversation is one session of a business.

#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/hostkit/Outbox.h>

#include "Harness.h"

namespace {

using namespace vesk;
using peers::Channel;
using peers::Load;
using peers::Options;

constexpr char const* TOPIC = "virtualcomm";

using Frame = std::shared_ptr<VeskFrame>;

class Host : public VeskCallback {
public:
    Host(int channel, bool coalesces) : mChannel(channel), mCoalesces(coalesces) {
        mVesk->init(this);
        mVesk->createTopic(TOPIC, false);
    }

    /** Joins the conversations, each a session. */
    void join(int type) {
        auto* const sessions = mVesk->getSessionManager();
        int const topic = mVesk->getConfig()->getTopicIdByName(TOPIC);
        for (int id = 1; mSessions.size() < Load::CONVERSATIONS; ++id) {
            auto const business = mVesk->getConfig()->getBussinessIdById(topic, id);
            if (business.empty()) continue;
            auto const session = sessions->createSession(1, type, TOPIC, business, false);
            mSessions.push_back(sessions->getSession(uint16_t(session)));
            mConversations[mSessions.back()->sessionId()] = mSessions.size() - 1;
        }
    }

    void send(size_t conversation, uint8_t type, uint16_t reply, uint8_t const* data, size_t size) {
        auto const& session = *mSessions[conversation];
        auto const frame = VeskFrame::obtainFrame(true);
        frame->topicId = uint8_t(session.topicId());
        frame->businessId = uint8_t(session.businessId());
        frame->msgType = type;
        frame->reply = reply;
        frame->msgId = frame->serialNumber;
        frame->data.assign(data, data + size);
        mSessions[conversation]->send(false, frame, IMMEDIATE_PRIORITY);
    }

    void request() {
        auto const request = mLoad->next();
        uint16_t const session = mSessions[request.conversation]->sessionId();
        send(request.conversation, REQUEST, session, request.data, request.size);
    }

    void receive(uint32_t, uint32_t id, bool, Frame const& frame) override {
        size_t const conversation = mConversations[id];
        if (!mLoad) {
            send(conversation, REPLY, frame->reply, frame->data.data(), frame->data.size());
        } else if (mLoad->replied(conversation, frame->data.data(), frame->data.size())) {
            request();
        }
    }

    void sendToChannel(std::vector<uint8_t> bytes) override {
        if (!mCoalesces) return peers::writeAll(mChannel, bytes.data(), bytes.size());
        mOutbox.put(std::move(bytes));
        if (mOutbox.moreComes(*mQueue)) return;
        for (auto batch = mOutbox.take(); batch.size > 0; batch = mOutbox.take()) {
            peers::writeAll(mChannel, batch.data, batch.size);
            mOutbox.written(batch.size);
        }
    }

    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

    /** Asks, with a load; else serves, for good. */
    void work(Load* load, size_t window) {
        hostkit::FrameReader reader(*mVesk->getConfig(), [this](Frame const& frame) {
            mQueue->receiveFromChannel(frame);
        });
        mLoad = load;
        for (size_t i = 0; i < window; ++i)
            request();
        std::vector<uint8_t> bytes(65536);
        while (!load || !load->done())
            reader.feed(bytes.data(), peers::readSome(mChannel, bytes.data(), bytes.size()));
    }

private:
    int const mChannel;
    bool const mCoalesces;
    Vesk* const mVesk = Vesk::getInstance();
    std::shared_ptr<VeskQueue> const mQueue = mVesk->getQueue();
    hostkit::Outbox mOutbox{nullptr};
    Load* mLoad = nullptr;
    std::vector<std::shared_ptr<VeskSession>> mSessions;
    std::vector<size_t> mConversations = std::vector<size_t>(65536);
};

void serve(Channel const& channel, Options const& options) {
    android::sp<Host> const host = new Host(channel.end, options.coalesces);
    host->join(VeskSessionManager::PROVIDER);
    host->work(nullptr, 0);
}

void ask(Channel const& channel, Options const& options, Load& load) {
    android::sp<Host> const host = new Host(channel.end, options.coalesces);
    host->join(VeskSessionManager::CONSUMER);
    host->work(&load, options.window);
}

}  // namespace

int main(int argc, char** argv) {
    return peers::run(argc, argv, serve, ask);
}
