// The client library in this process, with a host that is another one.

#include <unistd.h>

#include <future>
#include <map>
#include <mutex>
#include <thread>

#include <vesk/client/Client.h>
#include <vesk/hostkit_asio/StatusServer.h>

#include "support/Scene.h"

namespace vesk::e2e {

using client::Client;
using client::Responder;
using Outcome = Client::Outcome;
using namespace std::chrono_literals;

class ClientTest : public Scene {
protected:
    Process& startHost() {
        Process& host = start("host --channel tty:" + path("none") +
                              " --local-topic test --clients " + socket("host"));
        awaitText(host, "serving");
        return host;
    }

    client::BusinessName const mBusiness{"test", "test"};
};

TEST_F(ClientTest, RequestsAreAnsweredOnceByWhoeverAndWhenever) {
    startHost();
    Client provider(path("host")), consumer(path("host"));
    std::mutex mutex;
    std::vector<Responder> kept;
    provider.serve(mBusiness, [&](Bytes const& request, Responder const& responder) {
        if (!request.empty()) return (void)responder.reply(request);
        std::lock_guard<std::mutex> const lock(mutex);
        kept.push_back(responder);
    });
    EXPECT_THROW(consumer.call({1}, 1s), std::logic_error);
    EXPECT_THROW(Client(path("host")).join({"test", "toast"}), std::invalid_argument);
    consumer.join(mBusiness);
    EXPECT_THROW(consumer.serve(mBusiness, nullptr), std::logic_error);
    EXPECT_THROW(consumer.call(Bytes(65536), 1s), std::invalid_argument);
    std::vector<std::future<Client::Reply>> replies;
    for (uint8_t i = 1; i <= 200; ++i)
        replies.push_back(consumer.call(Bytes(i, i), 60s));
    for (uint8_t i = 1; i <= 200; ++i)
        EXPECT_EQ(replies[i - 1U].get().payload, Bytes(i, i));
    EXPECT_EQ(consumer.query().providers, 1U);

    // The reply to a request that was given up is nobody's, however late it comes.
    EXPECT_EQ(consumer.call({}, 1ms).get().outcome, Outcome::TIMED_OUT);
    await("the request", [&] {
        std::lock_guard<std::mutex> const lock(mutex);
        return !kept.empty();
    });
    std::thread([&] { EXPECT_TRUE(kept[0].reply({9})); }).join();
    EXPECT_FALSE(kept[0].reply({9}));
    EXPECT_EQ(consumer.call({7}, 60s).get().payload, Bytes{7});
}

TEST_F(ClientTest, WhatIsOutstandingEndsWithTheClientOrItsHost) {
    Process& host = startHost();
    Client provider(path("host"));
    provider.serve(mBusiness, [](auto const&, auto const&) {});
    auto consumer = std::make_unique<Client>(path("host"));
    consumer->join(mBusiness);
    std::promise<void> waited;
    std::promise<Outcome> last;
    consumer->call({}, 1ms, [&](auto const&) {
        EXPECT_THROW(consumer->query(), std::logic_error) << "it would wait for itself";
        consumer.reset();
        waited.set_value();
    });
    consumer->call({}, 60s, [&](Client::Reply const& reply) { last.set_value(reply.outcome); });
    waited.get_future().wait();
    EXPECT_EQ(last.get_future().get(), Outcome::LOST);

    // A callback that is the last owner takes its client with it.
    std::promise<void> gone;
    std::shared_ptr<Client> owned(new Client(path("host")), [&](Client* client) {
        delete client;
        gone.set_value();
    });
    owned->join(mBusiness);
    owned->call({}, 1ms, [owned](auto const&) {});
    owned.reset();
    EXPECT_EQ(gone.get_future().wait_for(60s), std::future_status::ready);

    std::promise<std::string> lost;
    Client::Options options;
    options.onLost = [&](std::string const& reason) { lost.set_value(reason); };
    Client other(path("host"), options);
    other.join(mBusiness);
    auto const outstanding = other.call({}, 60s);
    host.signal(SIGKILL);
    EXPECT_NE(lost.get_future().get().find("the host is gone"), std::string::npos);
    EXPECT_FALSE(other.connected());
    EXPECT_EQ(other.call({}, 60s).get().outcome, Outcome::NOT_SENT);
    EXPECT_THROW(other.query(), std::runtime_error);
}

TEST_F(ClientTest, AHostThatComesBackFindsItsClientsAgain) {
    Process& host = startHost();
    std::promise<uint16_t> served, joined;
    std::atomic<int> topics{0};
    Client::Options options;
    options.reconnect = true;
    options.onBack = [&](uint16_t session) { served.set_value(session); };
    Client provider(path("host"), options);
    provider.serve(mBusiness, [](Bytes const& request, Responder const& to) { to.reply(request); });
    provider.watch({[&](bool added, std::string const&) { topics += added ? 1 : 0; }, {}});
    options.onBack = [&](uint16_t session) { joined.set_value(session); };
    Client consumer(path("host"), options);
    consumer.join(mBusiness);
    EXPECT_EQ(consumer.call({1}, 60s).get().outcome, Outcome::REPLIED);
    host.signal(SIGKILL);
    await("its end", [&] { return !host.ending().empty(); });
    startHost();
    EXPECT_GT(served.get_future().get(), 0U);
    EXPECT_GT(joined.get_future().get(), 0U);
    EXPECT_EQ(consumer.call({2}, 60s).get().payload, Bytes{2});
    await("the topic once more", [&] { return topics >= 2; });
}

TEST_F(ClientTest, AHostOfAnotherUserIsNotTrusted) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be two users";
    std::filesystem::permissions(path(""), std::filesystem::perms::all);
    std::map<std::string, asio::local::stream_protocol::acceptor> hosts;
    for (char const* const name : {"foreign", "root", "first"}) {
        auto& host = hosts.emplace(name, mIo).first->second;
        host.open();
        host.bind(path(name));
        std::filesystem::permissions(path(name), std::filesystem::perms::all);
        ASSERT_EQ(::seteuid(name == std::string("foreign") ? 65534 : 0), 0);
        host.listen();
        ASSERT_EQ(::seteuid(0), 0);
    }
    try {
        Client const client(path("foreign"));
        FAIL();
    } catch (std::runtime_error const& error) {
        EXPECT_NE(std::string(error.what()).find("belongs to user 65534"), std::string::npos);
    }
    Client::Options options;
    options.anyOwner = true;
    EXPECT_TRUE(Client(path("foreign"), options).connected());
    ASSERT_EQ(::seteuid(65534), 0);
    EXPECT_TRUE(Client(path("foreign")).connected());
    EXPECT_TRUE(Client(path("root")).connected());
    ASSERT_EQ(::seteuid(0), 0);
    // Nor is one that has come to the place of the user's own.
    options = {};
    options.reconnect = true;
    Client const client(path("first"), options);
    hosts.erase("first");
    std::filesystem::rename(path("foreign"), path("first"));
    std::this_thread::sleep_for(130ms);
    EXPECT_FALSE(client.connected());
    std::filesystem::rename(path("root"), path("first"));
    await("it is back", [&] { return client.connected(); });
}

TEST_F(ClientTest, AnyHostCanBeWatched) {
    hostkit::HostStatus status;
    status.pending = 3;
    status.businesses.push_back({"test", "test", 2, 1});
    hostkit::StatusServer server(
            path("host"), [&] { return status; }, [](std::string const&) {});
    server.topicChanged(true, "test");
    Process& watch = start("watch --host " + socket("host"));
    awaitText(watch, "topic test added\n");
    awaitText(watch, "channel up, pending 3, ");
    awaitText(watch, "clients 3, providers 1, ");
    server.providerChanged(true, "test", "test");
    awaitText(watch, "provider test/test added\n");
    Process& asked = start("status --host " + socket("host"));
    expectEnd(asked, 0);
    EXPECT_NE(asked.output().find("pending           3 of 1000\n"), std::string::npos);
    EXPECT_NE(asked.output().find("test/test         1 providers, 2 consumers"), std::string::npos)
            << asked.output();
    expectEnd(start("call test/test --data x --host " + socket("host")), 2, "only be watched");
}

}  // namespace vesk::e2e
