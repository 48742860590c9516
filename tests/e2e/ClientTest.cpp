#include <signal.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include "support/Scene.h"

namespace vesk::e2e {

namespace {

using tool::Bytes;

/** What local clients do, and what is done to them. */
class ClientTest : public Scene {
protected:
    using Connection = asio::local::stream_protocol::socket;

    /** A client of the host "near" that follows no rules, and what it begins with. */
    Connection connect(Bytes const& first) {
        Connection connection(mIo);
        connection.connect(path("near"));
        asio::write(connection, asio::buffer(first));
        return connection;
    }

    static std::string readToEnd(Connection& connection) {
        std::string all;
        asio::error_code end;
        asio::read(connection, asio::dynamic_buffer(all), end);
        return all;
    }

    void expectCall(std::string const& ending, Arguments arguments, std::string const& errors,
                    std::string const& business = "test/test") {
        Process& caller = call("near", std::move(arguments), business);
        expectEnd(caller, ending);
        EXPECT_NE(caller.errors().find(errors), std::string::npos) << caller.errors();
    }
};

TEST_F(ClientTest, AProviderThatDiesTakesItsSessionAlong) {
    startPair();
    Process& watcher = start({"watch", "--host", socket("far")});
    auto const awaitNews = [&](std::string const& what) {
        await("watch to tell", [&] {
            return watcher.output().find("provider test/test " + what) != std::string::npos;
        });
    };
    Process& provider = startEcho("far");
    awaitNews("added");
    expectCall("exit status 0", {"--data", "x"}, "");

    provider.signal(SIGKILL);
    awaitNews("removed");
    expectEnd(provider, "signal 9");
    expectCall("exit status 1", {"--data", "x", "--timeout", "300", "--count", "2"},
               "2 of 2 requests got no reply");
    EXPECT_EQ(counters("far").providers, 0U);

    startEcho("far");
    expectCall("exit status 0", {"--data", "x"}, "");
}

TEST_F(ClientTest, BrokenClientsHarmNobody) {
    startPair();
    startEcho("far");
    Bytes const join = tool::JoinMessage{1, "test", "test"}.encode();
    Bytes const request =
            tool::DataMessage::encode(tool::MessageType::REQUEST, 0, 1, Bytes(tool::MAX_PAYLOAD));
    {
        Connection const vanishing = connect({join.begin(), join.begin() + 5});
        Connection joined = connect(join);
        asio::write(joined, asio::buffer(request, 500));
        await("both to arrive", [&] { return counters("near").clients == 3; });
    }
    await("both to be gone", [&] { return counters("near").clients == 1; });

    struct {
        Bytes bytes;
        char const* answer;
    } const bad[] = {
            {{0xFF, 0xFF, 0xFF, 0xFF, 4}, "65535 bytes at most"},
            {{0, 0, 0, 0}, "without a type"},
            {{1, 0, 0, 0, 99}, "messages of type 99"},
            {{3, 0, 0, 0, 1, 1, 200}, "not of its form"},
            {tool::JoinMessage{3, "test", "test"}.encode(), "not as 3"},
            {tool::DataMessage::encode(tool::MessageType::REPLY, 1, 1, {}), "only a provider"},
    };
    for (auto const& [bytes, answer] : bad) {
        Connection connection = connect(bytes);
        EXPECT_NE(readToEnd(connection).find(answer), std::string::npos) << answer;
    }
    EXPECT_EQ(counters("near").refused, std::size(bad));

    Connection neverReads = connect(join);
    for (int i = 0; i < 400; ++i)
        asio::write(neverReads, asio::buffer(request));
    await("the host to lose patience", [&] { return counters("near").evicted == 1; });
    EXPECT_EQ(counters("far").evicted, 0U) << "the provider was slow, not dead";
    expectCall("exit status 0", {"--data", "x"}, "");
}

TEST_F(ClientTest, AProviderMayFinishItsReplyBeforeItReadsOn) {
    startHost("near", socket("channel"), {"--local-topic", "test"});
    Connection provider = connect(tool::JoinMessage{2, "test", "test"}.encode());
    await("the provider", [&] { return counters("near").providers == 1; });
    std::thread echo([&provider] {
        Bytes message(4);
        asio::error_code end;
        while (asio::read(provider, asio::buffer(message, 4), end) == 4) {
            message.resize(4 + message[0] + size_t{message[1]} * 256 + size_t{message[2]} * 65536);
            asio::read(provider, asio::buffer(message) + 4, end);
            if (message[4] != static_cast<uint8_t>(tool::MessageType::REQUEST)) continue;
            message[4] = static_cast<uint8_t>(tool::MessageType::REPLY);
            asio::write(provider, asio::buffer(message), end);
        }
    });
    std::ofstream(path("longest")) << std::string(tool::MAX_PAYLOAD, 'x');
    Process* callers[3];
    for (Process*& caller : callers) {
        caller = &start({"call", "--host", socket("near"), "test/test", "--file", path("longest"),
                         "--count", "1000", "--window", "1000", "--verify", "--report", "--timeout",
                         "240000"});
    }
    for (Process* caller : callers)
        expectEnd(*caller, "exit status 0");
    EXPECT_EQ(counters("near").evicted, 0U);
    provider.shutdown(Connection::shutdown_both);
    echo.join();
}

TEST_F(ClientTest, WhatCannotBeIsRefusedWithTheReason) {
    startHost("near", socket("channel"), {"--local-topic", "test"});
    std::ofstream(path("long")) << std::string(65536, 'x');
    std::ofstream(path("longest")) << std::string(65535, 'x');
    expectCall("exit status 2", {"--file", path("long")}, "longer than 65535 bytes");
    expectCall("exit status 2", {"--data", "x"}, "the known ones are: test", "test/toast");
    expectCall("exit status 2", {"--data", "x"}, "known ones are: virtualcomm, test", "nix/vm");
    expectCall("exit status 2", {"--data", "x"}, "it serves: test", "virtualcomm/vm");
    expectCall("exit status 2", {"--data", "x"}, "write TOPIC/BUSINESS", "test");
    expectCall("exit status 2", {"--data", "x", "--window", "0"}, "--window");

    // A local topic needs no channel.
    startEcho("near");
    Process& caller = call("near", {"--file", path("longest")});
    EXPECT_EQ(caller.output(), std::string(65535, 'x') + "\n");
}

TEST_F(ClientTest, EveryCommandEndsCleanlyAndASocketIsNeverInTheWay) {
    Process& far = startHost("far", socket("channel"), {"--listen"});
    Process& rival = start({"host", "--channel", socket("other"), "--clients", socket("far")});
    expectEnd(rival, "exit status 1");
    EXPECT_NE(rival.errors().find("another process serves"), std::string::npos);

    far.signal(SIGKILL);
    expectEnd(far, "signal 9");
    ASSERT_TRUE(std::filesystem::exists(path("far")));
    Process& successor = startHost("far", socket("channel"), {"--listen", "--local-topic", "test"});
    Process& provider = start({"provide", "--host", socket("far"), "test/test", "--exec",
                               "touch " + path("busy") + "; exec sleep 1000"});
    await("the provider", [&] { return counters("far").providers == 1; });
    Process& caller = start(
            {"call", "--host", socket("far"), "test/test", "--data", "x", "--timeout", "300000"});
    await("the command to run", [&] { return std::filesystem::exists(path("busy")); });
    for (Process* process : {&caller, &provider, &successor}) {
        process->signal(SIGINT);
        expectEnd(*process, process == &caller ? "exit status 1" : "exit status 0");
    }
    EXPECT_FALSE(std::filesystem::exists(path("far")));
    EXPECT_FALSE(std::filesystem::exists(path("channel")));
}

TEST_F(ClientTest, TheDemoLosesNothingAndCleansUp) {
    ::setenv("TMPDIR", path("").c_str(), 1);
    Process& demo = start({"demo", "--requests", "30"});
    expectEnd(demo, "exit status 0");
    EXPECT_NE(demo.output().find("\ntotal                          420       420      0"),
              std::string::npos)
            << demo.output();

    Process& interrupted = start({"demo", "--requests", "1000000"});
    await("the consumers", [&] { return !interrupted.output().empty(); });
    interrupted.signal(SIGINT);
    expectEnd(interrupted, "exit status 130");
    for (auto const& entry : std::filesystem::directory_iterator(path("")))
        EXPECT_EQ(entry.path().filename().string().rfind("errors", 0), 0U) << entry.path();
}

}  // namespace

}  // namespace vesk::e2e
