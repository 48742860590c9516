#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vesk/Vesk.h>

/** A host under test: it answers every request with the request's own bytes. */
class EchoHost : public vesk::VeskCallback {
public:
    using Channel = std::function<void(std::vector<uint8_t>)>;

    explicit EchoHost(Channel channel) : mChannel(std::move(channel)) {}

    void receive(uint32_t, uint32_t sessionId, bool local,
                 std::shared_ptr<vesk::VeskFrame> const& request) override {
        if (request->msgType != 2) return;
        auto const reply = vesk::VeskFrame::obtainFrame(true);
        reply->topicId = request->topicId;
        reply->businessId = request->businessId;
        reply->msgType = 3;
        reply->reply = request->reply;
        reply->data = request->data;
        auto* const sessions = vesk::Vesk::getInstance()->getSessionManager();
        sessions->getSession(static_cast<uint16_t>(sessionId))->send(local, reply, 1);
    }
    void sendToChannel(std::vector<uint8_t> bytes) override { mChannel(std::move(bytes)); }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

private:
    Channel const mChannel;
};
