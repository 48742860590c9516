// A host in this process: what it counts, and its limits.

#include <optional>

#include <vesk/Vesk.h>
#include <vesk/hostkit_asio/Host.h>
#include <vesk/testkit/ShiftedClock.h>

#include "support/HostScene.h"

namespace vesk::e2e {

using hostkit::Endpoint;
using hostkit::Host;

/** A host in this process, whose library's time stands still. */
class HostInProcessTest : public HostScene {
protected:
    ~HostInProcessTest() override {
        mHost.reset();
        for (char const* const topic : {"test", "virtualcomm"})
            mVesk->removeTopic(topic);
        mVesk->onChannelAvailable(false);
        mClock.settle();
    }

    Host::Options options() {
        Host::Options options;
        options.channel = Endpoint::parse(socket("channel"));
        options.clients = path("host");
        options.report = [this](std::string const& line) { mReports.push_back(line); };
        return options;
    }

    void enqueue(int count, size_t size = 0) {
        for (int i = 0; i < count; ++i) {
            auto const frame = VeskFrame::obtainFrame(false);
            frame->topicId = 2;
            frame->businessId = 1;
            frame->msgType = REQUEST;
            frame->msgId = ++mLastId;
            frame->data.resize(size);
            mVesk->getQueue()->enqueue(1, true, frame);
        }
        mClock.settle();
    }

    /** The number of this name in the host's status. */
    size_t told(std::string const& name) {
        Line& line = connect();
        line.say(client::StatusMessage{client::StatusFormat::JSON}.encode());
        awaitHeard(line, 1);
        std::string const json(line.heard()[0].begin() + 5, line.heard()[0].end());
        line.close();
        size_t const place = json.find("\"" + name + "\":");
        return place < json.size() ? std::stoul(json.substr(place + name.size() + 3)) : ~size_t{0};
    }

    Vesk* const mVesk = Vesk::getInstance();
    testkit::ShiftedClock mClock;
    uint16_t mLastId = 0;
    std::vector<std::string> mReports;
    std::optional<Host> mHost;
};

TEST_F(HostInProcessTest, TellsEveryNumberInItsPlace) {
    mHost.emplace(mIo, options());
    acceptPeer().close();
    await("the end of the channel", [&] { return counters().channelUp == 0; });
    Line& peer = acceptPeer();
    await("the channel", [&] { return counters().channelUp == 1; });
    for (uint16_t id = 1; id <= 9; ++id) {
        peer.say(frame(2, 1, id, ""));
        if (id == 5) await("five", [&] { return counters().receivedPackets == 5; });
        mClock.settle();  // five are acknowledged at a time
    }
    peer.say({'n', 'o', 'i', 's', 'e', '!'});
    await("the noise", [&] { return counters().skippedBytes == 6; });
    for (int const count : {500, 500, 3})
        enqueue(count);
    auto& feedback = const_cast<VeskFeedback&>(mVesk->getQueue()->feedback());
    for (int i = 0; i < 2; ++i)
        feedback.updateDelay(1600);
    join(PROVIDER);
    client::Counters const all{1, 2, 1, 3, 1000, 4, 1600, 2, 1001, 9, 6, 1, 0, 0};
    EXPECT_EQ(counters().encode(), all.encode());
    EXPECT_EQ(told("reconnects"), 1U);
    EXPECT_LT(told("channelMs"), 60000U);
    peer.close();
    std::string const lost = "3 queued frames are lost with the channel";
    await(lost,
          [&] { return std::find(mReports.begin(), mReports.end(), lost) != mReports.end(); });
}

TEST_F(HostInProcessTest, SendsAndReadsAsFarAsItsLimitsLet) {
    constexpr size_t FRAME = 60012;
    Host::Options some = options();
    some.limits.backlogHigh = 200000;
    some.limits.backlogLow = 100000;
    some.limits.backlogRead = 270000;
    mHost.emplace(mIo, some);
    asio::local::stream_protocol::socket peer(mIo);
    mListener->acceptor().accept(peer);
    peer.non_blocking(true);
    auto const read = [&] {
        char chunk[8192];
        asio::error_code nothing;
        peer.read_some(asio::buffer(chunk), nothing);
    };
    uint16_t received = 0, sent = 0;
    auto const say = [&] { peer.write_some(asio::buffer(frame(2, 1, ++received, ""))); };
    auto const heard = [&] { return counters().receivedPackets == received; };
    auto const request = [&] {
        join(CONSUMER).say(data(Type::REQUEST, 0, ++sent, std::string(60000, 'x')));
    };
    auto const send = [&] {
        request();
        await("a frame", [&] { return counters().sentPackets == sent; });
    };
    await("the channel", [&] { return counters().channelUp == 1; });
    while (told("backlog") == 0)
        send();
    for (int i = 0; i < 3; ++i)
        send();
    request();  // is one too many
    EXPECT_EQ(told("backlog"), 4 * FRAME);
    for (int i = 0; i < 2; ++i) {
        say();
        await("what the peer says", heard);
    }
    while (told("backlog") > 3 * FRAME)
        read();
    EXPECT_EQ(told("backlog"), 3 * FRAME);
    EXPECT_EQ(counters().sentPackets, sent - 1U) << "until less than the low watermark waits";
    enqueue(2, 60000);
    say();
    await("what the peer says", heard);
    say();
    EXPECT_EQ(told("backlog"), 5 * FRAME);
    EXPECT_FALSE(heard()) << "it has to read";
    await("everything", [&] {
        read();
        return heard() && counters().sentPackets == sent + 2U;
    });
}

}  // namespace vesk::e2e
