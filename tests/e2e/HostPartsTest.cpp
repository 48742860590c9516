// The parts of a host, each for itself in this process.

#include <fcntl.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <array>
#include <optional>

#include <vesk/Vesk.h>
#include <vesk/hostkit_asio/Host.h>
#include <vesk/hostkit_asio/StatusServer.h>
#include <vesk/testkit/ShiftedClock.h>
#include <asio/ip/tcp.hpp>
#include <asio/local/datagram_protocol.hpp>

#include "LinkSource.h"
#include "support/HostScene.h"

namespace vesk::e2e {

namespace {

using hostkit::Endpoint;
using hostkit::Host;
using hostkit::Link;
using hostkit::LinkSource;
using hostkit::SerialLine;
using hostkit::SocketAccess;
using hostkit::UnixListener;
using Strings = std::vector<std::string>;

/** Where the test is root, it is nobody for a while. */
class AsNobody {
public:
    AsNobody() : mWasRoot(::geteuid() == 0 && ::seteuid(65534) == 0) {}
    ~AsNobody() { EXPECT_TRUE(!mWasRoot || ::seteuid(0) == 0); }
    AsNobody(AsNobody const&) = delete;
    AsNobody& operator=(AsNobody const&) = delete;

private:
    bool const mWasRoot;
};

class HostPartsTest : public HostScene {
protected:
    void settle() {
        mIo.restart();
        while (mIo.poll() > 0)
            continue;
    }

    static size_t openDescriptors() {
        std::filesystem::directory_iterator const all("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    static std::string errorOf(std::function<void()> const& action) {
        try {
            action();
        } catch (std::exception const& error) {
            return error.what();
        }
        return "";
    }

    std::shared_ptr<Link> openLink(LinkSource& source, std::string* why = nullptr) {
        std::shared_ptr<Link> opened;
        bool answered = false;
        source.open([&](std::shared_ptr<Link> link, asio::error_code const& error) {
            EXPECT_EQ(link == nullptr, static_cast<bool>(error));
            if (why) *why = error.message();
            opened = std::move(link);
            answered = true;
        });
        await("a link", [&] { return answered; });
        return opened;
    }

    static auto settingsOf(int line) {
        termios of{};
        EXPECT_EQ(::tcgetattr(line, &of), 0);
        int isExclusive = 0;
        ::ioctl(line, TIOCGEXCL, &isExclusive);
        return std::tuple(of.c_iflag, of.c_oflag, of.c_lflag, of.c_cflag, ::cfgetospeed(&of),
                          ::cfgetispeed(&of), of.c_cc[VMIN], of.c_cc[VTIME], isExclusive);
    }

    hostkit::Report const mReport = [this](std::string const& line) { mReports.push_back(line); };
    Strings mReports;
};

}  // namespace

TEST_F(HostPartsTest, ASerialLineIsRawAndOnesOwnUntilItIsReleased) {
    int master = -1, slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    int const again = ::open(::ttyname(slave), O_RDWR | O_NOCTTY | O_CLOEXEC);
    size_t const descriptors = openDescriptors();
    auto const before = settingsOf(slave);
    termios raw{};
    ::tcgetattr(slave, &raw);
    ::cfmakeraw(&raw);
    auto const settings = std::tuple(raw.c_iflag, raw.c_oflag, raw.c_lflag,
                                     (raw.c_cflag & ~tcflag_t{CBAUD}) | CREAD | CLOCAL | B9600,
                                     speed_t{B9600}, speed_t{B9600}, cc_t{1}, cc_t{0}, 1);
    {
        SerialLine line, other;
        EXPECT_FALSE(line.take(slave, 12345));
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(settingsOf(slave), before);
        for (int i = 0; i < 2; ++i)
            ASSERT_TRUE(line.take(slave, 9600));
        EXPECT_EQ(settingsOf(slave), settings);
        EXPECT_FALSE(other.take(again, 115200));
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(settingsOf(slave), settings);
        line.release();
        EXPECT_EQ(settingsOf(slave), before);
        EXPECT_TRUE(other.take(again, 9600));
    }
    EXPECT_EQ(settingsOf(slave), before);
    std::string why;
    LinkSource nothing(mIo, Endpoint::parse("tty:/dev/null"), false, mReport);
    EXPECT_EQ(openLink(nothing, &why), nullptr);
    EXPECT_EQ(why, "Inappropriate ioctl for device");
    EXPECT_EQ(openDescriptors(), descriptors);
    for (int const fd : {master, slave, again})
        ::close(fd);
}

TEST_F(HostPartsTest, ASocketIsMadeAsAskedOrNotAtAll) {
    size_t const descriptors = openDescriptors();
    auto const errorAt = [&](std::string const& name, SocketAccess const& access = {}) {
        return errorOf([&] { UnixListener const made(mIo, path(name), access); });
    };
    {
        gid_t const group = ::geteuid() == 0 ? 1 : ::getegid();
        UnixListener const given(mIo, path("given"), {0641, group}), plain(mIo, path("plain"));
        for (auto const& [name, mode, owner] :
             {std::tuple{"given", 0641U, group}, {"plain", 0600U, ::getegid()}}) {
            struct stat info {};
            ASSERT_EQ(::lstat(path(name).c_str(), &info), 0);
            EXPECT_EQ(std::pair(info.st_mode & 07777U, info.st_gid), std::pair(mode, owner));
        }
        ::chmod(path("").c_str(), 0777);
        AsNobody const nobody;
        EXPECT_EQ(errorAt("foreign", {0600, 4242}),
                  "cannot give the socket '" + path("foreign") +
                          "' its group: Operation not permitted; name a group of the user who runs "
                          "this, or none");
        asio::local::datagram_protocol::socket const datagrams(
                mIo, asio::local::datagram_protocol::endpoint(path("datagrams")));
        EXPECT_NE(errorAt("datagrams").find("cannot create the socket"), std::string::npos);
        asio::local::stream_protocol::acceptor full(mIo, asio::local::stream_protocol());
        full.bind(path("full"));
        full.listen(0);
        connect("full").close();
        EXPECT_NE(errorAt("full").find("another process serves"), std::string::npos);
    }
    Strings left;
    for (auto const& file : std::filesystem::directory_iterator(path("")))
        left.push_back(file.path().filename());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (Strings{"channel", "datagrams", "full"}));
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(HostPartsTest, ATcpPortHasOnePeerAndIsFreeAgainAtOnce) {
    asio::ip::tcp::endpoint const any(asio::ip::address_v4::loopback(), 0);
    auto const port = asio::ip::tcp::acceptor(mIo, any).local_endpoint().port();
    Endpoint const endpoint = Endpoint::parse("tcp:" + std::to_string(port));
    std::string const name = endpoint.toString();
    size_t const descriptors = openDescriptors();
    for (int i = 0; i < 2; ++i) {
        LinkSource listening(mIo, endpoint, true, mReport);
        LinkSource first(mIo, endpoint, false, mReport), second(mIo, endpoint, false, mReport);
        std::shared_ptr<Link> here;
        listening.open([&](std::shared_ptr<Link> link, auto) { here = std::move(link); });
        std::shared_ptr<Link> const there = openLink(first);
        await("a peer", [&] { return here != nullptr; });
        for (Link* const link : {here.get(), there.get()}) {
            int const fd = link->reader().native_handle();
            for (auto const& [level, option] :
                 {std::pair<int, int>{IPPROTO_TCP, TCP_NODELAY}, {SOL_SOCKET, SO_KEEPALIVE}}) {
                int isOn = 0;
                socklen_t size = sizeof(isOn);
                ::getsockopt(fd, level, option, &isOn, &size);
                EXPECT_EQ(isOn, 1) << option;
            }
        }
        std::array<char, 2> byte{};
        EXPECT_FALSE(here->hasUnread());
        there->writer().write_some(asio::buffer("x", 1));
        await("a byte", [&] { return here->hasUnread(); });
        EXPECT_EQ(here->reader().read_some(asio::buffer(byte)), 1U);
        openLink(second);
        await("the end of the second", [&] { return !mReports.empty(); });
        EXPECT_EQ(std::exchange(mReports, {}),
                  Strings{"turned away a second peer of the channel " + name});
        EXPECT_EQ(errorOf([&] { LinkSource(mIo, endpoint, true, mReport); }),
                  "cannot listen on '" + name + "': Address already in use");
        here->close();
    }
    std::string why;
    LinkSource nobody(mIo, endpoint, false, mReport);
    EXPECT_EQ(openLink(nobody, &why), nullptr);
    EXPECT_EQ(why, "Connection refused");
    std::string const wrong = "tcp:" + std::string(300, 'x') + ":1";
    EXPECT_EQ(errorOf([&] {
                  LinkSource(mIo, Endpoint::parse(wrong), true, mReport);
              }).find("cannot resolve '" + wrong + "': "),
              0U);
    EXPECT_EQ(errorOf([&] { LinkSource(mIo, Endpoint::parse("dev:x"), true, mReport); }),
              "--listen makes no sense with 'dev:x': nobody connects to it");
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(HostPartsTest, AStatusServerTellsEveryNumberInItsPlace) {
    hostkit::HostStatus status;
    status.pending = 21;
    status.awaitingAck = 22;
    status.owedAcks = 23;
    status.delayMillis = 24;
    status.slowDeliveries = 25;
    status.skippedBytes = 28;
    status.reconnects = 29;
    status.undelivered = 30;
    status.traffic = {
            {{{1000, 1}, {2000, 2}}, {{1, 3}, {10, 4}}, {{2, 5}, {20, 6}}, {{4, 7}, {40, 8}}}};
    status.businesses = {{"a", "b", 3, 5, 99}, {"c", "d", 7, 11, 98}};
    hostkit::StatusServer server(
            path("host"), [&] { return status; }, [](auto const&) {});
    client::Counters const told{1, 26, 16, 21, 22, 23, 24, 25, 70, 7, 28, 29, 0, 0};
    EXPECT_EQ(counters().encode(), told.encode());
    status.up = false;
    EXPECT_EQ(counters().channelUp, 0U);
    Line& watching = connect();
    watching.say(client::encodeMessage(Type::WATCH));
    watching.say(client::encodeMessage(Type::QUERY));
    awaitHeard(watching, 1);
    server.topicChanged(true, "t");
    server.providerChanged(true, "t", "b");
    server.providerChanged(false, "t", "b");
    awaitHeard(watching, 4);
    EXPECT_EQ(watching.heard()[1], (client::ChangeMessage{true, "t", ""}.encode(Type::TOPIC)));
    EXPECT_EQ(watching.heard()[2], (client::ChangeMessage{true, "t", "b"}.encode(Type::PROVIDER)));
    EXPECT_EQ(watching.heard()[3], (client::ChangeMessage{false, "t", "b"}.encode(Type::PROVIDER)));
    Line& joins = connect();
    joins.say(joining(CONSUMER));
    awaitClosed(joins);
    EXPECT_EQ(joins.heard()[0][4], static_cast<uint8_t>(Type::REFUSED));
}

/** A host in this process, whose library's time stands still. */
class HostInProcessTest : public HostPartsTest {
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
        options.report = mReport;
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
    std::optional<Host> mHost;
};

TEST_F(HostInProcessTest, TellsEveryNumberInItsPlace) {
    for (auto const& [topics, error] :
         {std::pair{Strings{"nix"},
                    "there is no topic 'nix'; the known ones are: virtualcomm, "
                    "test"},
          {Strings{"test"},
           "the topic 'test' is named twice; name it once, with the peer or among "
           "local clients"}}) {
        Host::Options wrong = options();
        wrong.topics = topics;
        wrong.localTopics = {"test"};
        EXPECT_EQ(errorOf([&, &options = wrong] { Host const none(mIo, options); }), error);
    }
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
