#pragma once

#include <atomic>
#include <cstdint>

#include <vesk/client/Responder.h>

namespace vesk::client {

/** A request that awaits its reply, as its responders share it. */
class Responder::Target {
public:
    Target(uint16_t session, uint16_t msgId) : mSession(session), mMsgId(msgId) {}
    virtual ~Target() = default;
    Target(Target const&) = delete;
    Target& operator=(Target const&) = delete;

    uint16_t session() const { return mSession; }
    uint16_t msgId() const { return mMsgId; }

    bool reply(Bytes const& payload) { return !mAnswered.exchange(true) && send(payload); }

private:
    /** Returns false where there is nobody any more to send it to. */
    virtual bool send(Bytes const& payload) = 0;

    uint16_t const mSession;
    uint16_t const mMsgId;
    std::atomic<bool> mAnswered{false};
};

}  // namespace vesk::client
