#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>

/** A host under test: it answers every request with the request's own bytes. */
class EchoHost : public vesk::VeskCallback {
public:
    using Channel = std::function<void(std::vector<uint8_t>)>;

    explicit EchoHost(Channel channel) : mChannel(std::move(channel)) {}

    void receive(uint32_t, uint32_t sessionId, bool local,
                 std::shared_ptr<vesk::VeskFrame> const& request) override {
        auto* const sessions = vesk::Vesk::getInstance()->getSessionManager();
        auto const me = sessions->getSession(static_cast<uint16_t>(sessionId));
        if (request->msgType != vesk::REQUEST || !me)
            return;  // no request, or the provider is going
        auto const reply = vesk::VeskFrame::obtainFrame(true);
        reply->topicId = request->topicId;
        reply->businessId = request->businessId;
        reply->msgType = vesk::REPLY;
        reply->reply = request->reply;
        reply->msgId = reply->serialNumber;
        reply->data = request->data;
        me->send(local, reply, 1);
    }
    void sendToChannel(std::vector<uint8_t> bytes) override { mChannel(std::move(bytes)); }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

private:
    Channel const mChannel;
};
