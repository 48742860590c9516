// The byte channel of a host in this process: when it is opened, read, written and given up.

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <numeric>
#include <optional>

#include <vesk/hostkit_asio/Channel.h>
#include <asio/ip/tcp.hpp>

#include "LinkSource.h"
#include "support/HostScene.h"
#include "support/SteadyTime.h"

namespace vesk::e2e {

namespace {

using hostkit::Channel;
using hostkit::Endpoint;
using Strings = std::vector<std::string>;

class ChannelTest : public Scene, private hostkit::ChannelWatcher {
protected:
    Channel& make(std::string const& endpoint, bool listen = false) {
        Channel::Events const events{[this](bool up) {
                                         mSaid.emplace_back(up ? "up" : "down");
                                         mStates.push_back(up);
                                         EXPECT_EQ(mChannel->up(), up);
                                         EXPECT_EQ(mChannel->outbox().isOpen(), up);
                                     },
                                     [this](std::shared_ptr<VeskFrame> const& frame) {
                                         mFrames.push_back(frame->msgId);
                                     },
                                     [this] {
                                         ++mProgress;
                                         if (mOnProgress) mOnProgress();
                                     },
                                     [this] { mSaid.emplace_back("end"); },
                                     [this](std::string const& line) { mSaid.push_back(line); },
                                     this};
        mChannel.emplace(mIo, Endpoint::parse(endpoint), listen, mCatalogue, events);
        return *mChannel;
    }

    /** One that is up, and its peer. */
    Line& open() {
        make(socket("channel")).start();
        return acceptPeer();
    }

    Line& acceptPeer() {
        mTime.settle();
        asio::local::stream_protocol::socket peer(mIo);
        mListener->acceptor().non_blocking(true);
        mListener->acceptor().accept(peer);
        Line& line = mLines.emplace_back(mIo, Line::FRAMES, peer.release());
        mTime.settle();
        mSaid.clear();
        return line;
    }

    void say(Line& peer, Bytes const& bytes) {
        peer.say(bytes);
        mTime.settle();
    }

    /** What was reported and told to the watcher since the last time. */
    Strings said() {
        mTime.settle();
        return std::exchange(mSaid, {});
    }

    static std::string skipped(int bytes) {
        return "skipped " + std::to_string(bytes) + " bytes on the channel that belong to no frame";
    }

    void opened(std::string const& name) override { mSaid.push_back("opened " + name); }
    void closed() override { mSaid.emplace_back("closed"); }
    void carried(hostkit::FrameText::Direction direction, uint8_t const*, size_t size) override {
        mCarried[direction == hostkit::FrameText::Direction::OUT] += size;
    }

    SteadyTime mTime{mIo};
    VeskConfig const mCatalogue;
    std::optional<hostkit::UnixListener> mListener{std::in_place, mIo, path("channel")};
    Strings mSaid;
    std::vector<bool> mStates;
    std::vector<int> mFrames;
    size_t mCarried[2]{};  // in and out
    int mProgress = 0;
    std::function<void()> mOnProgress;
    std::optional<Channel> mChannel;
};

}  // namespace

TEST_F(ChannelTest, IsTriedLessAndLessOftenUntilSomebodySpeaks) {
    std::string greeting;
    hostkit::AcceptLoop loop(
            mListener->acceptor(), [&](auto peer) { peer.write_some(asio::buffer(greeting)); },
            [](auto const&) {});
    make(socket("channel")).start();
    std::vector<int> times;
    for (int time = 0; time <= 12800; time += 50) {
        mTime.advance(time ? 50 : 0);
        for (bool const up : std::exchange(mStates, {})) {
            if (up) times.push_back(time);
        }
    }
    EXPECT_EQ(times, (std::vector{0, 100, 300, 700, 1500, 3100, 6300, 9500, 12700}));
    EXPECT_EQ(mChannel->reconnects(), 8U);
    greeting = "x";
    mTime.advance(3200);
    for (int i = 0; i < 3; ++i)
        mTime.advance(100);
    EXPECT_EQ(mChannel->reconnects(), 12U) << "it has said something each time";
}

TEST_F(ChannelTest, SaysOnceWhyItIsNotThereAndHowLongItHasBeenSo) {
    mListener.reset();
    std::string const name = socket("channel");
    Channel& channel = make(name);
    EXPECT_EQ(channel.reconnects(), 0U);
    channel.write({1, 2, 3});
    EXPECT_EQ(mCarried[1], 3U);
    EXPECT_EQ(channel.outbox().lostBytes(), 3U);
    channel.start();
    mTime.advance(1000);
    auto const missing = "cannot open the channel " + name +
                         ": No such file or directory; trying "
                         "again";
    EXPECT_EQ(said(), Strings{missing});
    std::ofstream(path("channel")) << "";
    mTime.advance(5000);
    EXPECT_EQ(channel.stateMillis(), 6000U);
    EXPECT_EQ(said(), Strings{"cannot open the channel " + name +
                              ": Connection refused; trying "
                              "again"});
    std::filesystem::remove(path("channel"));
    mTime.advance(5000);
    EXPECT_EQ(said(), Strings{missing});
    mListener.emplace(mIo, path("channel"));
    mTime.advance(3200);
    EXPECT_EQ(said(), (Strings{"opened " + name, "channel up: " + name, "up"}));
    Line& peer = acceptPeer();
    EXPECT_LT(channel.stateMillis(), 3200U);
    mListener.reset();
    peer.close();
    EXPECT_EQ(said(), (Strings{"closed",
                               "channel down: the peer closed it; 0 bytes on their way out are "
                               "lost; clients stay and wait",
                               "down"}));
    EXPECT_EQ(channel.stateMillis(), 0U);
    mTime.advance(5000);
    EXPECT_EQ(said(), Strings{missing});
}

TEST_F(ChannelTest, LosesWhatHasNotLeftAndBeginsAnew) {
    Line& first = open();
    Bytes const one = frame(2, 1, 1, "one");
    mChannel->write(one);
    mTime.settle();
    EXPECT_EQ(first.heard(), std::vector<Bytes>{one});
    EXPECT_EQ(mProgress, 1);
    say(first, {one.begin(), one.begin() + 5});
    EXPECT_EQ(mCarried[0], 5U);
    first.stop();
    mTime.settle();
    for (int i = 0; i < 2; ++i) {
        mChannel->write(Bytes(1000000));
        mTime.settle();
    }
    first.close();
    Strings const all = said();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ((Strings{all[0], all[1], all[3]}), (Strings{skipped(5), "closed", "down"}));
    uint64_t const lost = mChannel->outbox().lostBytes();
    EXPECT_NE(all[2].find("; " + std::to_string(lost) + " bytes on their way"), std::string::npos);
    EXPECT_GT(lost, 1000000U);
    mChannel->write(one);
    EXPECT_EQ(mChannel->outbox().lostBytes(), lost + one.size());
    mTime.advance(100);
    Line& second = acceptPeer();
    mChannel->write(one);
    say(second, one);
    EXPECT_EQ(second.heard(), std::vector<Bytes>{one});
    EXPECT_EQ(mFrames, std::vector{1});
    EXPECT_EQ(mChannel->reader().skippedBytes(), 5U);
    EXPECT_EQ(mChannel->reconnects(), 1U);
}

TEST_F(ChannelTest, ReadsNothingWhileHeldAndEverythingOnceBehindThat) {
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    Channel& channel = make("dev:" + path("pipe"));
    channel.start();
    mTime.settle();
    int const pipe = ::open(path("pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(::fcntl(pipe, F_SETPIPE_SZ, 1 << 20), 1 << 20);
    Bytes all;
    std::vector<int> numbers(50000);
    std::iota(numbers.begin(), numbers.end(), 1);
    for (int const number : numbers) {
        for (uint8_t const byte : frame(2, 1, static_cast<uint16_t>(number), ""))
            all.push_back(byte);
    }
    auto const releaseTwice = [&] {
        for (bool const held : {true, false, true, false})
            channel.hold(held);
    };
    releaseTwice();
    size_t before = 0, most = 0;
    mOnProgress = [&] {
        most = std::max(most, mFrames.size() - std::exchange(before, mFrames.size()));
    };
    // More than is read at once.
    for (auto const& game : {std::function<void()>(), {releaseTwice}, {releaseTwice}}) {
        if (game) mOnProgress = game;
        ASSERT_EQ(::write(pipe, all.data(), all.size()), static_cast<ssize_t>(all.size()));
        mTime.settle();
        EXPECT_EQ(std::exchange(mFrames, {}), numbers);
        EXPECT_EQ(channel.reader().skippedBytes(), 0U);
    }
    EXPECT_LE(most, 64U + 4096 / 12) << "others have their turn between";
    mOnProgress = [&] { channel.hold(true); };
    EXPECT_EQ(::write(pipe, all.data(), all.size()), static_cast<ssize_t>(all.size()));
    mTime.settle();
    EXPECT_LE(mFrames.size(), most);
    mOnProgress = {};
    channel.hold(false);
    mTime.settle();
    EXPECT_EQ(mFrames, numbers);
    ::close(pipe);
}

TEST_F(ChannelTest, NoticesAPeerThatHasLeftOnReleaseOrWhenAWriteFails) {
    for (bool const write : {false, true}) {
        Line& peer = open();
        mChannel->hold(true);
        mTime.settle();
        say(peer, frame(2, 1, 1, ""));
        mFrames.clear();
        peer.close();
        mTime.settle();
        EXPECT_TRUE(mChannel->up());
        write ? mChannel->write({1}) : mChannel->hold(false);
        mTime.settle();
        EXPECT_FALSE(mChannel->up());
        EXPECT_EQ(mFrames.size(), write ? 0U : 1U);
    }
}

TEST_F(ChannelTest, AListenerHasOnePeerAtATimeAndTheNextAtOnce) {
    mListener.reset();
    std::string const name = socket("channel");
    make(name, true).start();
    Line& first = connect("channel", Line::FRAMES);
    EXPECT_EQ(said(), (Strings{"opened " + name, "channel up: " + name, "up"}));
    Line& second = connect("channel", Line::FRAMES);
    EXPECT_EQ(said(), Strings{"turned away a second peer of the channel " + name});
    EXPECT_TRUE(second.closed());
    first.close();
    EXPECT_EQ(said().back(), "down");
    connect("channel", Line::FRAMES);
    EXPECT_EQ(said().back(), "up");
}

TEST_F(ChannelTest, AcceptsAgainWhenDescriptorsAreThere) {
    int accepted = 0;
    hostkit::AcceptLoop loop(
            mListener->acceptor(), [&](auto const&) { ++accepted; },
            [this](std::string const& line) { mSaid.push_back(line); });
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (int const time : {1, 2}) {
        connect("channel");
        int const next = ::dup(STDIN_FILENO);
        ::close(next);
        rlimit const few{static_cast<rlim_t>(next), limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
        mTime.settle();
        mTime.advance(100);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(said(), Strings{"cannot accept a connection: Too many open files; trying again"});
        mTime.advance(99);
        EXPECT_EQ(accepted, time - 1);
        mTime.advance(1);
        EXPECT_EQ(accepted, time);
    }
}

TEST_F(ChannelTest, GivesUpAFrameOnlyWhenThePeerIsSilent) {
    Line& peer = open();
    Bytes const inside = frame(2, 1, 2, "");
    Bytes const whole = frame(2, 1, 1, std::string(inside.begin(), inside.end()) + "x");
    auto const part = [&](long from, long to) {
        return Bytes{whole.begin() + from, whole.begin() + to};
    };
    say(peer, part(0, 3));
    mTime.advance(999);
    say(peer, part(3, 5));
    mTime.advance(999);
    // Bytes that have come meanwhile are no silence, even if this host was late.
    peer.say(part(5, 7));
    mTime.advance(1000);
    say(peer, part(7, 25));
    EXPECT_EQ(std::exchange(mFrames, {}), std::vector{1});
    mTime.advance(5000);
    EXPECT_EQ(said(), Strings{});

    say(peer, part(0, 24));
    mChannel->hold(true);
    mTime.advance(5000);
    mChannel->hold(false);
    mTime.advance(999);
    EXPECT_EQ(said(), Strings{});
    int const progress = mProgress;
    mTime.advance(1);
    EXPECT_EQ(said(), Strings{skipped(12)});
    EXPECT_EQ(mFrames, std::vector{2});
    EXPECT_EQ(mProgress, progress + 1);

    for (char const* const noise : {"one", "two", "three"})
        say(peer, {noise, noise + std::strlen(noise)});
    EXPECT_EQ(said(), Strings{}) << "it goes on";
    say(peer, inside);
    EXPECT_EQ(said(), Strings{skipped(11)});
    say(peer, {'x'});
    mTime.advance(1000);
    EXPECT_EQ(said(), Strings{skipped(1)});

    // The peer goes while this host sleeps.
    say(peer, part(0, 3));
    peer.close();
    mTime.advance(1000);
    EXPECT_EQ(said().size(), 4U);
}

}  // namespace vesk::e2e
