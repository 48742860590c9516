// What a host tells about itself when something is wrong.

#include <optional>
#include <utility>

#include <vesk/testkit/FarPeer.h>

#include "support/Scene.h"

namespace vesk::e2e {

class StatusTest : public Scene {
protected:
    /** Asks until the status has these words; returns it. */
    std::string awaitStatus(std::string const& words) {
        std::string status;
        Line& line = connect();
        await(words, [&] {
            size_t const answers = line.heard().size();
            line.say(client::StatusMessage{}.encode());
            awaitHeard(line, answers + 1);
            Bytes const& last = line.heard().back();
            status.assign(last.begin() + client::MessageReader::PREFIX_SIZE + 1, last.end());
            return status.find(words) != std::string::npos;
        });
        line.close();
        return status;
    }

    static Bytes toTest(uint8_t type, uint16_t session, size_t size) {
        return testkit::FarPeer::encode({2, 1, type, session, 0, 1, Bytes(size)});
    }
};

TEST_F(StatusTest, StatusNamesEachStagedCause) {
    std::optional<hostkit::UnixListener> listener(std::in_place, mIo, path("channel"));
    awaitText(start("host --clients " + socket("host") + " --channel " + socket("channel")),
              "serving");
    Line& peer = accept(*listener, Line::FRAMES);
    EXPECT_EQ(awaitStatus("channel           up").find("suspicion"), std::string::npos);

    peer.say(toTest(REQUEST, 0, 3));
    awaitStatus("requests for test/test arrive and nobody provides it");
    Line& provider = connect();
    provider.say(joining(PROVIDER));
    awaitHeard(provider, 1);
    EXPECT_EQ(awaitStatus("1 providers, 0 consumers, 1 requests").find("nobody"),
              std::string::npos);

    Line& deaf = connect();
    deaf.say(joining(CONSUMER));
    awaitHeard(deaf, 1);
    for (int i = 0; i < 100; ++i)
        deaf.say(data(Type::REQUEST, 0, i, "?"));
    // The host owes one acknowledgement frame for five frames; of its own none is acknowledged.
    awaitStatus("the peer has acknowledged 0 of 100 frames: it is not reading or does not ack");

    uint16_t const session = deaf.number(0);
    deaf.stop();
    for (int i = 0; i < 40; ++i)
        peer.say(toTest(REPLY, session, 60000));
    awaitStatus("client 5 does not read");
    peer.say(Bytes(60000, 'x'));
    awaitStatus("2 % of the bytes belong to no frame");
    listener.reset();  // so that the host does not come back
    peer.close();
    awaitStatus("the channel is down since ");

    Process& asked = start("status --host " + socket("host"));
    expectEnd(asked, 0);
    EXPECT_NE(asked.output().find("suspicion         the channel is down"), std::string::npos);
    Process& json = start("status --json --host " + socket("host"));
    expectEnd(json, 0);
    EXPECT_EQ(json.output().rfind("{\"up\":false,\"channelMs\":", 0), 0U) << json.output();
}

}  // namespace vesk::e2e
