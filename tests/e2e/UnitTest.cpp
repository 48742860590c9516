// The parts of the tool that need no process of their own.

#include <set>

#include <vesk/Vesk.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

#include "Admission.h"
#include "CallReport.h"
#include "HostCallback.h"
#include "PayloadSource.h"
#include "support/Scene.h"

namespace vesk::tool {

namespace {

using UnitTest = e2e::Scene;

TEST_F(UnitTest, MessagesHaveTheirDocumentedBytes) {
    EXPECT_EQ((JoinMessage{2, "ab", "c"}.encode()), (Bytes{7, 0, 0, 0, 1, 2, 2, 'a', 'b', 1, 'c'}));
    EXPECT_EQ(JoinedMessage{0x1234}.encode(), (Bytes{3, 0, 0, 0, 2, 0x34, 0x12}));
    EXPECT_EQ(data(Type::REPLY, 0x102, 0x304, "x"), (Bytes{6, 0, 0, 0, 5, 2, 1, 4, 3, 'x'}));
    ChangeMessage const change{true, "t", "b"};
    EXPECT_EQ(change.encode(Type::TOPIC), (Bytes{4, 0, 0, 0, 7, 1, 1, 't'}));
    EXPECT_EQ(change.encode(Type::PROVIDER), (Bytes{6, 0, 0, 0, 8, 1, 1, 't', 1, 'b'}));
    Bytes counted{113, 0, 0, 0, 10};
    for (uint8_t i = 1; i < 14; ++i)
        counted.insert(counted.end(), {i, 0, 0, 0, 0, 0, 0, 0});
    counted.insert(counted.end(), {1, 2, 3, 4, 5, 6, 7, 8});
    Counters const counters{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0x0807060504030201};
    EXPECT_EQ(counters.encode(), counted);
    EXPECT_EQ(Counters::decode({counted.begin() + 5, counted.end()})->encode(), counted);
    EXPECT_FALSE(Counters::decode({counted.begin() + 4, counted.end()}));
    EXPECT_FALSE(DataMessage::decode({1, 2, 3}));
    EXPECT_FALSE(ChangeMessage::decode(Type::TOPIC, {1, 1}));
    EXPECT_FALSE(JoinedMessage::decode({1, 2, 3}));

    using Result = MessageReader::Result;
    MessageReader reader;
    Message message;
    Bytes const longest = data(Type::REQUEST, 1, 2, std::string(MAX_PAYLOAD, 'x'));
    for (size_t part : {3, 100, 65539}) {
        reader.append(longest.data(), part);
        EXPECT_EQ(reader.next(message), Result::NEED_MORE);
        reader.append(&longest[part], longest.size() - part);
        reader.append(counted.data(), counted.size());
        for (Bytes const& expected : {longest, counted}) {
            ASSERT_EQ(reader.next(message), Result::MESSAGE);
            EXPECT_EQ(static_cast<uint8_t>(message.type), expected[4]);
            EXPECT_EQ(message.body, Bytes(expected.begin() + 5, expected.end()));
        }
    }
    reader.append(Bytes{5, 0, 1, 0}.data(), 4);
    EXPECT_EQ(reader.next(message), Result::TOO_LONG);
}

TEST_F(UnitTest, PayloadsAndReportsAreWhatTheCommandLineSays) {
    CallOptions options;
    options.randomSize = 10;
    PayloadSource random(options);
    std::set<size_t> sizes;
    std::set<Bytes> payloads;
    for (int i = 0; i < 2000; ++i)
        sizes.insert(payloads.insert(random.next()).first->size());
    EXPECT_EQ(sizes.size(), 11U);
    EXPECT_EQ(*sizes.rbegin(), 10U);
    EXPECT_GT(payloads.size(), 500U);
    EXPECT_TRUE(random.firstMsgId() != random.firstMsgId() || random.firstMsgId() != 0);
    CallOptions limits[3];
    for (size_t size : {65535U, 65536U}) {
        limits[0].data = std::string(size, 'x');
        limits[1].randomSize = size;
        limits[2].file = path("file");
        std::ofstream(limits[2].file) << *limits[0].data;
        for (auto const& limit : limits) {
            if (size > 65535) {
                EXPECT_THROW(PayloadSource{limit}, UsageError);
            } else if (!limit.randomSize) {
                EXPECT_EQ(PayloadSource(limit).next(), Bytes(size, 'x'));
            }
        }
    }
    std::vector<uint32_t> const sorted{1, 2, 3, 4};
    EXPECT_EQ(percentile({}, 50), 0U);
    EXPECT_EQ(percentile(sorted, 50), 3U);
    EXPECT_EQ(percentile(sorted, 100), 4U);
    for (char const* line : {"result 2 1 0 0 5 6", "result 2 2 1 0 5 6", "result 2 2 0 1 5 6"})
        EXPECT_FALSE(CallReport::parse(line)->complete());
    EXPECT_FALSE(CallReport::parse("result 1 2 3 4 5"));
}

TEST_F(UnitTest, AHostLooksBeforeItSendsAndIsCalledNoMoreWhenItHasGone) {
    auto* const vesk = Vesk::getInstance();
    vesk->init(new testkit::RecordingCallback);
    testkit::ShiftedClock clock;
    UnixListener listener(mIo, path("channel"));
    Channel channel(mIo, Endpoint::parse(socket("channel")), false, *vesk->getConfig(),
                    {[](bool) {}, {}, [] {}});
    Admission const admission(*vesk->getQueue(), channel);
    EXPECT_FALSE(admission.open()) << "the channel is down";
    channel.start();
    accept(listener, e2e::Line::FRAMES);
    await("the channel", [&] { return channel.up(); });
    // Of packets that leave at once and await acknowledgement, and of such that are held back.
    for (auto const& [priority, limit] : {std::pair{1, 900}, {2, 256}}) {
        for (int i = 0; i < limit; ++i) {
            ASSERT_TRUE(admission.open()) << i;
            auto const frame = VeskFrame::obtainFrame(true);
            frame->msgId = static_cast<uint16_t>(i);
            vesk->getQueue()->enqueue(priority, true, frame);
            clock.settle();
        }
        EXPECT_FALSE(admission.open()) << limit;
        vesk->onChannelAvailable(false);
    }
    channel.write(Bytes(size_t{1024} * 1024 - 1));
    EXPECT_TRUE(admission.open());
    channel.write({1});
    EXPECT_FALSE(admission.open());
    await("room", [&] { return channel.backlog() == 0; });

    ClientServer clients(mIo, path("host"), {}, {[] { return true; }, [](bool) {}, [](auto&) {}});
    android::sp<HostCallback> const callback = new HostCallback(channel, clients);
    callback->notifyTopicChanged(true, "test");
    callback->detach();
    callback->sendToChannel({1});
    EXPECT_EQ(channel.backlog(), 0U);
    callback->notifyTopicChanged(false, "test");
    auto& watcher = connect();
    watcher.say(encodeMessage(Type::WATCH));
    awaitHeard(watcher, ChangeMessage{true, "test", {}}.encode(Type::TOPIC));
}

}  // namespace

}  // namespace vesk::tool
