#include <optional>

#include <gtest/gtest.h>
#include <vesk/testkit/FarPeer.h>

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
        mNear.emplace(mIo, path("wire.near"));
        mFar.emplace(mIo, path("wire.far"));
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
        expectEnd(call("near", {"--random-size", "3000", "--count", "50", "--window", "10",
                                "--verify", "--timeout", "60000"}),
                  "exit status 0");
    }

    std::optional<Socket> mNear, mFar;
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
    expectEnd(waiting, "exit status 0");
    EXPECT_EQ(waiting.output(), "patience\n");

    expectTraffic();
    EXPECT_TRUE(provider.ending().empty());
    EXPECT_EQ(counters("far").reconnects, 1U);
    EXPECT_EQ(counters("far").skippedBytes, 5U);
}

TEST_F(ChannelTest, ForeignBytesHideNoFrame) {
    startEcho("far");
    Process& watcher = start({"watch", "--host", socket("far")});
    mWire->insertTowardsB(std::vector<uint8_t>(1000, 0x55));
    expectTraffic();
    EXPECT_EQ(counters("far").skippedBytes, 1000U);
    await("watch to report it",
          [&] { return watcher.output().find("skipped bytes 1000") != std::string::npos; });

    // A header that claims 3,000 bytes hides the request in these until the channel is silent.
    uint64_t const before = counters("far").receivedPackets;
    std::vector<uint8_t> bytes{0x00, 0x55, 0xB8, 0x0B, 2, 1, 2, 0, 0, 0, 0, 0, 0};
    auto const request = testkit::FarPeer::encode({2, 1, 2, 0, 0, 0, {1, 2, 3}});
    bytes.insert(bytes.end(), request.begin(), request.end());
    mWire->insertTowardsB(bytes);
    await("the request", [&] { return counters("far").receivedPackets == before + 1; });
    EXPECT_EQ(counters("far").skippedBytes, 1013U);
    expectTraffic();
}

TEST_F(ChannelTest, OverloadLosesNothing) {
    startEcho("far");
    startEcho("near", "virtualcomm/vm");
    std::vector<Process*> callers;
    auto const flood = [&](std::string const& host, std::string const& business) {
        // Several times what the library holds at once, both ways.
        callers.push_back(&start({"call", "--host", socket(host), business, "--random-size", "500",
                                  "--count", "3000", "--window", "3000", "--verify", "--report",
                                  "--timeout", "240000"}));
    };
    for (int i = 0; i < 3; ++i)
        flood("near", "test/test");
    flood("far", "virtualcomm/vm");
    for (Process* caller : callers)
        expectEnd(*caller, "exit status 0");
    EXPECT_EQ(counters("near").receivedPackets, 12000U);
    EXPECT_EQ(counters("far").receivedPackets, 12000U);
}

}  // namespace

}  // namespace vesk::e2e
