#include <gtest/gtest.h>

#include <vesk/hostkit/FrameText.h>
#include <vesk/hostkit/HostStatus.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

using namespace vesk;
using namespace vesk::hostkit;
using testkit::FarPeer;

TEST(FrameTextTest, NamesWhatItKnowsAndEscapesWhatATerminalWouldActOn) {
    using namespace std::string_literals;
    struct {
        FarPeer::Frame frame;
        std::string payload;
        char const* line;
        char const* json;
    } rows[] = {
            {{2, 1, 2, 7, 9, 5, {}},
             "a\"\n\\\x1B hi",
             R"(request test/test from session 7, msg 5, serial 9, 8 bytes: "a\"\n\\\x1B hi")",
             R"({"type":"request","msgType":2,"topic":"test","business":"test","topicId":2,)"
             R"("businessId":1,"reply":7,"serial":9,"msgId":5,"size":8,"text":"a\"\n\\\u001B hi"})"},
            {{2, 1, 3, 7, 9, 5, {}},
             "ä €-😀",
             R"(reply test/test to session 7, msg 5, serial 9, 11 bytes: "ä €-"...)",
             R"({"type":"reply","msgType":3,"topic":"test","business":"test","topicId":2,)"
             R"("businessId":1,"reply":7,"serial":9,"msgId":5,"size":11,"text":"ä €-","cut":true})"},
            {{9, 1, 4, 7, 9, 5, {}},
             "abc\xFF",
             R"(type 4 topic 9/business 1 reply field 7, msg 5, serial 9, 4 bytes: "abc\xFF")",
             R"({"type":"type 4","msgType":4,"topicId":9,"businessId":1,"reply":7,"serial":9,)"
             R"("msgId":5,"size":4,"hex":"616263FF"})"},
            {{0xAA, 0, 1, 7, 9, 5, {}},
             "ab\x1C",
             "type 1 topic 170/business 0 reply field 7, msg 5, serial 9, 3 bytes: 0x61621C",
             R"({"type":"type 1","msgType":1,"topicId":170,"businessId":0,"reply":7,"serial":9,)"
             R"("msgId":5,"size":3,"hex":"61621C"})"},
            {{0xAA, 0xAA, 1, 2, 0, 0xAA, {}},
             "\1\0\2\0\3\1\4\0"s,
             "acknowledgement of 2: serial 2 held 1 ms, serial 4 held 259 ms",
             R"({"type":"acknowledgement","msgType":1,"topicId":170,"businessId":170,"reply":2,)"
             R"("serial":0,"msgId":170,"size":8,)"
             R"("entries":[{"serial":2,"heldMs":1},{"serial":4,"heldMs":259}]})"},
            {{0xAA, 0xAA, 1, 2, 0, 0xAA, {}},
             "\1\0\2\0\3\1\4\0\5\0\6\0\7"s,
             "acknowledgement of 3, ignored because it says 2: serial 2 held 1 ms, "
             "serial 4 held 259 ms, ...",
             R"({"type":"acknowledgement","msgType":1,"topicId":170,"businessId":170,"reply":2,)"
             R"("serial":0,"msgId":170,"size":13,)"
             R"("entries":[{"serial":2,"heldMs":1},{"serial":4,"heldMs":259}],"cut":true})"}};
    VeskConfig const catalogue;
    FrameText const text(catalogue, {8, 2, false}), inHex(catalogue, {2, 2, true});
    VeskFrame frame;
    for (auto& row : rows) {
        row.frame.payload.assign(row.payload.begin(), row.payload.end());
        frame.unSerialze(FarPeer::encode(row.frame));
        EXPECT_EQ(text.line(frame), row.line);
        EXPECT_EQ(text.json(frame), row.json);
    }
    FrameText::Prefix const prefix{12005, FrameText::Direction::OUT};
    EXPECT_EQ(inHex.line(frame, prefix).substr(0, 30), "12.005 out acknowledgement of ");
    EXPECT_EQ(inHex.json(frame, {5, FrameText::Direction::IN}).substr(0, 25),
              R"({"ms":5,"direction":"in",)");
    frame.msgType = 0;
    EXPECT_NE(inHex.line(frame).find("13 bytes: 0x0100..."), std::string::npos);
    EXPECT_EQ(FrameText::escape("\x7F\xC2\x80\xC2\x9F\xC2\xA0\xE2\x80\xAE\xC0\x80\xE0\x80\x80"
                                "\xED\xA0\x80\xF4\x90\x80\x80\xC3\xE2\x80\xA8\xE2\x81\xA6"),
              R"(\x7F\xC2\x80\xC2\x9F)"
              "\xC2\xA0"
              R"(\xE2\x80\xAE\xC0\x80\xE0\x80\x80\xED\xA0\x80\xF4\x90\x80\x80\xC3\xE2\x80\xA8)"
              R"(\xE2\x81\xA6)");
}

TEST(HostStatusTest, CountsWhatIsThereAndWhatHasBecomeOfIt) {
    Vesk& vesk = *Vesk::getInstance();
    testkit::ShiftedClock clock;
    TrafficCounters traffic;
    Outbox outbox(nullptr);
    FrameReader reader(*vesk.getConfig(), [&](std::shared_ptr<VeskFrame> const& frame) {
        traffic.in(*frame);
        vesk.getQueue()->receiveFromChannel(frame);
    });
    android::sp<testkit::RecordingCallback> const callback = new testkit::RecordingCallback;
    callback->onReceive([&](auto const& delivery) { traffic.delivered(delivery.local); });
    callback->onSend([&](FarPeer::Bytes const& bytes) {
        traffic.out(bytes);
        outbox.put(bytes);
    });
    vesk.init(callback);
    vesk.createTopic("test", false);
    vesk.createTopic("virtualcomm", false);
    VeskSessionManager& sessions = *vesk.getSessionManager();
    int const consumer = sessions.createSession(1, 1, "test", "test", false);
    sessions.createSession(1, 1, "test", "test", false);
    sessions.createSession(1, 2, "virtualcomm", "vm", false);
    auto const feed = [&](FarPeer::Frame const& frame) {
        FarPeer::Bytes const bytes = FarPeer::encode(frame);
        reader.feed(bytes.data(), bytes.size());
    };
    auto const send = [&](int priority, std::vector<uint8_t> const& msgIds) {
        for (uint8_t const msgId : msgIds) {
            auto const frame = VeskFrame::obtainFrame(false);
            frame->msgId = frame->serialNumber = frame->msgType = msgId;
            frame->data.resize(msgId);
            vesk.getQueue()->enqueue(priority, true, frame);
        }
        clock.settle();
    };
    EXPECT_EQ(HostStatus::of(vesk, traffic).delayMillis, std::nullopt);
    send(1, {2, 2, 3, 4});  // the second of the same msgId takes the place of the first
    feed(FarPeer::ackFrame({{0, 3}}));
    EXPECT_EQ(HostStatus::of(vesk, traffic).delayMillis, 0U);
    clock.advance(2000);
    EXPECT_EQ(HostStatus::of(vesk, traffic).delayMillis, std::nullopt);
    send(1, {5, 7, 8, 9});
    clock.jump(1600);
    feed(FarPeer::ackFrame({{0, 5}}));
    send(2, FarPeer::Bytes(1005, 6));
    feed({2, 1, 3, uint16_t(consumer), 1, 1, {1, 2}});
    feed({2, 1, 2, 0, 1, 1, {}});
    feed({9, 1, 4, 0, 1, 1, {}});
    reader.feed(reinterpret_cast<uint8_t const*>("x"), 1);
    traffic.delivered(true);
    EXPECT_EQ(
            HostStatus::of(vesk, traffic, &outbox, &reader).json(),
            R"({"up":true,"backlog":136,"lostBytes":0,"skippedBytes":1,"pending":1000,)"
            R"("maxPending":1000,"awaitingAck":3,"maxAwaitingAck":1000,"owedAcks":2,)"
            R"("maxOwedAcks":1000,"acknowledged":2,"timedOut":2,"superseded":1,"dropped":5,)"
            R"("delayMs":1600,"slowDeliveries":3,"frames":{"acknowledgements":{"in":{"frames":2,)"
            R"("bytes":32},"out":{"frames":0,"bytes":0}},"requests":{"in":{"frames":1,"bytes":12},)"
            R"("out":{"frames":2,"bytes":28}},"replies":{"in":{"frames":1,"bytes":14},)"
            R"("out":{"frames":1,"bytes":15}},"others":{"in":{"frames":1,"bytes":12},)"
            R"("out":{"frames":5,"bytes":93}}},"undelivered":2,"sessions":[{"topic":"virtualcomm",)"
            R"("business":"vm","providers":1,"consumers":0},{"topic":"test","business":"test",)"
            R"("providers":0,"consumers":2}]})");
    outbox.close();
    EXPECT_EQ(HostStatus::of(vesk, traffic, &outbox, &reader).text(),
              R"(channel           down, backlog 0 bytes, lost 136 bytes, skipped 1 bytes
pending           1000 of 1000
awaiting ack      3 of 1000
owed acks         2 of 1000
sent frames       acknowledged 2, timed out 2, superseded 1, dropped 5
delay             1600 ms, slow deliveries in a row 3
acknowledgements  in 2 frames, 32 bytes; out 0 frames, 0 bytes
requests          in 1 frames, 12 bytes; out 2 frames, 28 bytes
replies           in 1 frames, 14 bytes; out 1 frames, 15 bytes
others            in 1 frames, 12 bytes; out 5 frames, 93 bytes
found no session  2 frames
virtualcomm/vm    1 providers, 0 consumers
test/test         0 providers, 2 consumers
)");
    vesk.init(new testkit::RecordingCallback);
    vesk.onChannelAvailable(false);
    sessions.removeSessionByClient(1);
    clock.settle();
}
