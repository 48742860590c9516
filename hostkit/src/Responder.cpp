#include <vesk/hostkit/Responder.h>

#include <utility>

#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>

namespace vesk::hostkit {

Responder::Responder(VeskFrame const& request)
    : mIsRequest(request.msgType == REQUEST),
      mAnswered(std::make_shared<std::atomic<bool>>(false)) {
    mHeader.topicId = request.topicId;
    mHeader.businessId = request.businessId;
    mHeader.msgType = REPLY;
    mHeader.reply = request.reply;
    mHeader.msgId = request.msgId;
}

std::shared_ptr<VeskFrame> Responder::reply(std::vector<uint8_t> payload) {
    bool const possible = mIsRequest && payload.size() <= MAX_PAYLOAD_SIZE;
    if (!possible || mAnswered->exchange(true)) return nullptr;
    auto frame = VeskFrame::obtainFrame(true);
    frame->topicId = mHeader.topicId;
    frame->businessId = mHeader.businessId;
    frame->msgType = mHeader.msgType;
    frame->reply = mHeader.reply;
    frame->msgId = mHeader.msgId;
    frame->data = std::move(payload);
    return frame;
}

bool Responder::send(uint32_t sessionId, std::vector<uint8_t> payload) {
    auto const frame = reply(std::move(payload));
    if (!frame) return false;
    auto const session =
            Vesk::getInstance()->getSessionManager()->getSession(static_cast<uint16_t>(sessionId));
    if (session) session->send(false, frame, IMMEDIATE_PRIORITY);
    return true;
}

}  // namespace vesk::hostkit
