// One scene on the channel, for two builds to compare: what it writes stands on stdout, or with the
// argument "read" comes in on stdin as the far end's, to be delivered and to acknowledge.

#include <iostream>
#include <string>

#include <vesk/Vesk.h>
#include <vesk/hostkit/FrameReader.h>
#include <vesk/testkit/FarPeer.h>
#include <vesk/testkit/RecordingCallback.h>
#include <vesk/testkit/ShiftedClock.h>

int main(int argc, char** argv) {
    bool const reads = argc > 1 && argv[1] == std::string("read");
    vesk::testkit::ShiftedClock clock(nullptr, 0xFFFFFFFF - 700);  // the low 32 bits run over
    android::sp<vesk::testkit::RecordingCallback> const host = new vesk::testkit::RecordingCallback;
    vesk::testkit::FarPeer peer;
    vesk::Vesk& facade = *vesk::Vesk::getInstance();
    facade.init(host);
    facade.createTopic("test", false);
    facade.getSessionManager()->createSession(1, 2, "test", "test", false);
    for (uint16_t const size : std::initializer_list<uint16_t>{0, 1, 255, 256, 65535}) {
        auto const serial = static_cast<uint16_t>(0x81FE + host->deliveries().size());
        peer.send({2, 1, 2, 0xFEDC, serial, size, std::vector<uint8_t>(size, 0xA5)});
        facade.getQueue()->enqueue(1, true, host->deliveries().back().frame);
        clock.advance(200);
    }
    clock.advance(500);
    auto const written = host->sent();
    if (!reads) {
        for (auto const& frame : written)
            std::cout << std::string(frame.begin(), frame.end());
        return std::cout.flush() ? 0 : 1;
    }
    std::string const bytes{std::istreambuf_iterator<char>(std::cin), {}};
    std::vector<std::vector<uint8_t>> read;
    vesk::hostkit::FrameReader reader(*facade.getConfig(), [&](auto const& frame) {
        frame->serialze(read.emplace_back());
        peer.send(read.back());
    });
    reader.feed(reinterpret_cast<uint8_t const*>(bytes.data()), bytes.size());
    bool const same = read == written && host->deliveries().size() == 10;
    size_t const waiting = facade.getQueue()->awaitingAck();
    std::cout << (same ? "the same" : "NOT the same") << ", " << waiting << " unacknowledged\n";
    return same && waiting == 0 ? 0 : 1;
}
