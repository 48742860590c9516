#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <vesk/hostkit/FrameText.h>
#include <vesk/hostkit/HostStatus.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

using namespace vesk;
using namespace vesk::hostkit;
using testkit::FarPeer;

/** A file beside this one; what is expected stands there, so that long lines may. */
std::ifstream beside(std::string const& name) {
    return std::ifstream(VESK_HOSTKIT_TESTS "/" + name);
}

// frames.txt: for each frame its bytes, the line and the JSON object for it.
TEST(FrameTextTest, NamesWhatItKnowsAndEscapesWhatATerminalWouldActOn) {
    VeskConfig const catalogue;
    FrameText const text(catalogue, {8, 2, false}), inHex(catalogue, {2, 2, true});
    int frames = 0;
    std::ifstream file = beside("frames.txt");
    for (std::string hex, line, json; getline(file, hex); ++frames) {
        getline(getline(file, line), json);
        std::istringstream numbers(hex);
        std::vector<uint8_t> bytes;
        for (unsigned byte = 0; numbers >> std::hex >> byte;)
            bytes.push_back(uint8_t(byte));
        VeskFrame frame;
        frame.unSerialze(bytes);
        EXPECT_EQ(text.line(frame, {12005, FrameText::Direction::OUT}), "12.005 out " + line);
        EXPECT_EQ(text.line(frame, {std::nullopt, FrameText::Direction::IN}), "in  " + line);
        EXPECT_EQ(text.json(frame, {5, FrameText::Direction::IN}),
                  R"({"ms":5,"direction":"in",)" + json.substr(1));
        EXPECT_EQ(text.json(frame, {std::nullopt, FrameText::Direction::OUT}),
                  R"({"direction":"out",)" + json.substr(1));
        frame.msgType = 0;
        EXPECT_EQ(inHex.line(frame).find("0x") < 99, bytes.size() > 12);
        EXPECT_EQ(inHex.json(frame).find(R"(","cut":true)") < 999, bytes.size() > 12);
    }
    EXPECT_EQ(frames, 7);
    std::string const kept = "ä\xC2\xA0\xE0\xA0\x80€\xED\x9F\xBF\xEE\x80\x80😀\xF4\x8F\xBF\xBF";
    EXPECT_EQ(FrameText::escape(kept), kept);
    std::string const escaped =
            "\x1F\x7F\xC2\x80\xC2\x9F\xD8\x9C\xE2\x80\x8E\xE2\x80\xAA\xE2\x80\xAE\xE2\x80\xA8\xBF"
            "\xE2\x81\xA6\xE2\x81\xA9\xC1\xBF\xE0\x9F\xBF\xF0\x8F\xBF\xBF\xED\xA0\x80\xF4\x90\xC3";
    EXPECT_EQ(FrameText::escape(escaped).size(), 4 * escaped.size());
}

TEST(HostStatusTest, CountsWhatIsThereAndWhatHasBecomeOfIt) {
    Vesk& vesk = *Vesk::getInstance();
    VeskSessionManager& sessions = *vesk.getSessionManager();
    testkit::ShiftedClock clock;
    TrafficCounters traffic;
    Outbox outbox(nullptr);
    FrameReader reader(*vesk.getConfig(), [&](auto const& frame) {
        traffic.in(*frame), vesk.getQueue()->receiveFromChannel(frame);
    });
    android::sp<testkit::RecordingCallback> const callback = new testkit::RecordingCallback;
    callback->onReceive([&](auto const& delivery) { traffic.delivered(delivery.local); });
    callback->onSend([&](auto const& bytes) { traffic.out(bytes), outbox.put(bytes); });
    vesk.init(callback);
    for (char const* const topic : {"test", "virtualcomm"})
        vesk.createTopic(topic, false);
    int const gone = sessions.createSession(1, 1, "test", "test", false);
    int const consumer = sessions.createSession(1, 1, "test", "test", false);
    sessions.createSession(1, 1, "test", "test", false);
    sessions.createSession(1, 2, "virtualcomm", "vm", false);
    sessions.removeSession(uint16_t(gone));  // one may be missing in between
    auto const feed = [&](std::vector<FarPeer::Frame> const& frames) {
        for (FarPeer::Frame const& frame : frames) {
            FarPeer::Bytes const bytes = FarPeer::encode(frame);
            reader.feed(bytes.data(), bytes.size());
        }
    };
    auto const send = [&](int priority, std::vector<uint8_t> const& msgIds) {
        for (uint8_t const msgId : msgIds) {
            auto const frame = VeskFrame::obtainFrame(false);
            frame->msgId = frame->serialNumber = frame->msgType = msgId;
            frame->data.resize(msgId);
            vesk.getQueue()->enqueue(priority, true, frame);
        }
        clock.settle();
        return HostStatus::of(vesk, traffic).delayMillis;
    };
    EXPECT_EQ(send(1, {2, 2, 3, 4, 10}),
              std::nullopt);  // the second 2 takes the place of the first
    feed({FarPeer::ackFrame({{0, 3}})});
    EXPECT_EQ(send(1, {}), 0U);
    clock.advance(2000);
    EXPECT_EQ(send(1, {5, 7, 8, 9, 11, 12}), std::nullopt);
    clock.jump(1600);
    feed({FarPeer::ackFrame({{0, 5}}),
          {2, 1, 3, uint16_t(consumer), 1, 1, {1, 2}},
          {2, 1, 2, 0, 1, 1, {}},
          {2, 1, 2, 0, 2, 1, {}},
          {2, 1, 2, 0, 3, 1, {}},
          {9, 1, 4, 0, 1, 1, {}}});
    reader.feed(FarPeer::Bytes{'x'}.data(), 1);
    send(2, FarPeer::Bytes(1006, 6));
    traffic.delivered(true);
    std::string found;
    for (bool up : {true, false}) {
        HostStatus const status = HostStatus::of(vesk, traffic, &outbox, &reader);
        found += status.json() + "\n" + status.text();
        if (up) outbox.close();
    }
    std::ostringstream expected;
    expected << beside("status.txt").rdbuf();
    EXPECT_EQ(found, expected.str());
    vesk.init(new testkit::RecordingCallback);
    vesk.onChannelAvailable(false);
    sessions.removeSessionByClient(1);
    clock.settle();
}
