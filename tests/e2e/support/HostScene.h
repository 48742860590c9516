#pragma once

#include <optional>

#include <vesk/testkit/FarPeer.h>

#include "Scene.h"

namespace vesk::e2e {

inline Bytes frame(uint8_t type, uint16_t session, uint16_t msgId, std::string const& payload) {
    return testkit::FarPeer::encode(
            {2, 1, type, session, 0, msgId, {payload.begin(), payload.end()}});
}

/** A host between clients and a peer that are in the test's hands. */
class HostScene : public Scene {
protected:
    /** Starts a host that serves clients at "host", and waits until it does. */
    Process& startHost(std::string const& channel, std::string const& more = "") {
        Process& host = start("host --clients " + socket("host") + " --channel " + channel + more);
        awaitText(host, "serving");
        return host;
    }

    Line& join(int role) {
        Line& line = connect();
        line.say(joining(role));
        awaitHeard(line, 1);
        return line;
    }

    client::Counters counters() {
        Line& line = connect();
        line.say(client::encodeMessage(Type::QUERY));
        awaitHeard(line, 1);
        line.close();
        return *client::Counters::decode({line.heard()[0].begin() + 5, line.heard()[0].end()});
    }

    void expectExchange(Line& peer, Line& consumer, uint16_t msgId = 0x1234) {
        consumer.say(data(Type::REQUEST, 0, msgId, "hi"));
        awaitHeard(peer, frame(2, consumer.number(0), msgId, "hi"));
        peer.say(frame(3, consumer.number(0), msgId, "ho"));
        awaitHeard(consumer, data(Type::REPLY, consumer.number(0), msgId, "ho"));
    }

    Line& acceptPeer() { return accept(*mListener, Line::FRAMES); }

    std::optional<hostkit::UnixListener> mListener{std::in_place, mIo, path("channel")};
};

}  // namespace vesk::e2e
