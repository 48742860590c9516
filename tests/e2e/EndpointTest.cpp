#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <asio/ip/tcp.hpp>

#include "support/Scene.h"
#include "support/Wire.h"

namespace vesk::e2e {

namespace {

std::string freePort(asio::io_context& io) {
    using asio::ip::tcp;
    tcp::acceptor const probe(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    return std::to_string(probe.local_endpoint().port());
}

/** The host opens the device, the wire holds the end. */
struct PseudoTerminal {
    explicit PseudoTerminal(asio::io_context& io) {
        int master = -1, slave = -1;
        termios settings{};
        ::cfmakeraw(&settings);
        ::cfsetspeed(&settings, B38400);
        if (::openpty(&master, &slave, nullptr, &settings, nullptr) != 0)
            throw std::runtime_error("this machine has no pseudo-terminals");
        device = ::ttyname(slave);
        end = std::make_shared<asio::posix::stream_descriptor>(io, master);
        keeper = std::make_shared<asio::posix::stream_descriptor>(io, slave);
    }

    std::string device;
    WireEnd end;
    WireEnd keeper;  // so that the wire does not fail before the host has opened it
};

/** The same traffic over each kind of channel. */
class EndpointTest : public Scene, public ::testing::WithParamInterface<char const*> {
protected:
    void startHosts() {
        std::string const kind = GetParam();
        if (kind == "tty") {
            PseudoTerminal const near(mIo);
            PseudoTerminal const far(mIo);
            mWire.emplace(near.end, far.end);
            mTerminals = {near, far};
            startHost("near", "tty:" + near.device + ",921600");
            startHost("far", "tty:" + far.device);
        } else {
            std::string const channel =
                    kind == "tcp" ? "tcp:127.0.0.1:" + freePort(mIo) : socket("channel");
            startHost("near", channel);  // the one that connects has to try again
            startHost("far", channel, {"--listen"});
        }
        awaitChannel("near", true);
        awaitChannel("far", true);
    }

private:
    std::optional<Wire> mWire;
    std::vector<PseudoTerminal> mTerminals;
};

TEST_P(EndpointTest, RequestsOfEverySizeAreAnswered) {
    startHosts();
    startEcho("far");
    start({"provide", "--host", socket("near"), "virtualcomm/vm", "--exec", "tr a-z A-Z"});
    await("the provider", [&] { return counters("near").providers == 1; });

    expectEnd(call("near", {"--random-size", "65535", "--count", "300", "--window", "8", "--verify",
                            "--timeout", "60000"}),
              "exit status 0");
    Process& shout = call("far", {"--data", "loud", "--count", "3", "--window", "3", "--stats"},
                          "virtualcomm/vm");
    expectEnd(shout, "exit status 0");
    EXPECT_EQ(shout.output(), "LOUD\nLOUD\nLOUD\n");
    EXPECT_NE(shout.errors().find("requests 3, replies 3, lost 0, p50"), std::string::npos);
    EXPECT_EQ(counters("near").skippedBytes, 0U);
    EXPECT_EQ(counters("far").receivedPackets, 300U + 3U);
}

INSTANTIATE_TEST_SUITE_P(Over, EndpointTest, ::testing::Values("unix", "tcp", "tty"),
                         [](auto const& kind) { return std::string(kind.param); });

}  // namespace

}  // namespace vesk::e2e
