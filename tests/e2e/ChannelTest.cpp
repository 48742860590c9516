#include <signal.h>

#include <filesystem>
#include <memory>
#include <optional>

#include <gtest/gtest.h>
#include <vesk/VeskFrame.h>

#include "support/Scene.h"
#include "support/Wire.h"

namespace vesk::e2e {

namespace {

/** Two hosts whose channel runs through the test's hands. */
class ChannelTest : public Scene {
protected:
    void SetUp() override {
        connectLater();
        startHost("near", socket("wire.near"));
        startHost("far", socket("wire.far"));
        connect();
    }

    void connectLater() {
        mNear = std::make_unique<Socket>(mIo, path("wire.near"));
        mFar = std::make_unique<Socket>(mIo, path("wire.far"));
    }

    void connect() {
        await("both hosts", [this] { return mNear->connected() && mFar->connected(); });
        mWire.emplace(mNear->end(), mFar->end());
        awaitChannel("near", true);
        awaitChannel("far", true);
    }

    void disconnect() {
        mNear.reset();  // nobody listens any more
        mFar.reset();
        mWire->cut();
        awaitChannel("near", false);
        awaitChannel("far", false);
    }

    void expectTraffic() {
        Process& caller = call("near", {"--random-size", "3000", "--count", "50", "--window", "10",
                                        "--verify", "--report", "--timeout", "60000"});
        EXPECT_EQ(caller.ending(), "exit status 0") << caller.errors();
    }

    std::unique_ptr<Socket> mNear;
    std::unique_ptr<Socket> mFar;
    std::optional<Wire> mWire;
};

TEST_F(ChannelTest, ClientsStayWhileTheChannelIsAway) {
    Process& provider = startEcho("far");
    expectTraffic();

    mWire->insertTowardsB({0x55, 0x08, 0x00, 0x02, 0x01});  // a frame that will never be whole
    disconnect();
    Process& waiting = start({"call", "--host", socket("near"), "test/test", "--data", "patience",
                              "--timeout", "120000"});
    await("the consumer to join", [&] { return counters("near").clients == 2; });
    EXPECT_EQ(counters("near").pending, 0U);
    connectLater();
    connect();
    await("its reply", [&] { return waiting.ended(); });
    EXPECT_EQ(waiting.output(), "patience\n");

    expectTraffic();
    EXPECT_TRUE(provider.ending().empty());
    EXPECT_EQ(counters("far").reconnects, 1U);
    EXPECT_EQ(counters("far").skippedBytes, 5U);
}

TEST_F(ChannelTest, FramesBehindGarbageAreFound) {
    startEcho("far");
    Process& watcher = start({"watch", "--host", socket("far")});
    std::vector<uint8_t> garbage(1000, 0x55);
    for (size_t i = 0; i < garbage.size(); i += 3)
        garbage[i] = static_cast<uint8_t>(i);
    mWire->insertTowardsB(garbage);
    expectTraffic();
    EXPECT_EQ(counters("far").skippedBytes, garbage.size());
    await("watch to report it",
          [&] { return watcher.output().find("skipped bytes 1000") != std::string::npos; });
}

TEST_F(ChannelTest, AFalseHeaderHidesNothingOnceTheChannelIsSilent) {
    startEcho("far");
    // Behind a foreign byte a header that claims 3,000 bytes, and within these a true request.
    std::vector<uint8_t> bytes{0x00, 0x55, 0xB8, 0x0B, 2, 1, 2, 0, 0, 0, 0, 0, 0};
    auto const frame = VeskFrame::obtainFrame(false);
    frame->topicId = 2;
    frame->businessId = 1;
    frame->msgType = 2;
    frame->data = {1, 2, 3};
    std::vector<uint8_t> request;
    frame->serialze(request);
    bytes.insert(bytes.end(), request.begin(), request.end());
    mWire->insertTowardsB(bytes);
    await("the hidden request", [&] { return counters("far").receivedPackets == 1; });
    EXPECT_EQ(counters("far").skippedBytes, 13U);
    expectTraffic();
}

TEST_F(ChannelTest, OverloadLosesNothing) {
    startEcho("far");
    startEcho("near", "virtualcomm/vm");
    // Several times what the library holds at once, both ways.
    Arguments const flood{"--random-size", "500",      "--count",  "3000",      "--window",
                          "3000",          "--verify", "--report", "--timeout", "240000"};
    std::vector<Process*> callers;
    for (int i = 0; i < 4; ++i) {
        std::string const host = i < 3 ? "near" : "far";
        Arguments arguments{"call", "--host", socket(host), i < 3 ? "test/test" : "virtualcomm/vm"};
        arguments.insert(arguments.end(), flood.begin(), flood.end());
        callers.push_back(&start(arguments));
    }
    for (Process* caller : callers) {
        await("a flood to end", [&] { return caller->ended(); });
        EXPECT_EQ(caller->ending(), "exit status 0") << caller->output() << caller->errors();
    }
    EXPECT_EQ(counters("near").receivedPackets, 12000U);
    EXPECT_EQ(counters("far").receivedPackets, 12000U);
}

}  // namespace

}  // namespace vesk::e2e
