#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <utils/StrongPointer.h>

namespace vesk {
class VeskQueue;
}

namespace vesk::testkit {

class RecordingCallback;

/**
 * The other end of the byte channel, in the test's hands. It encodes and decodes by itself, so that
 * a mistake in the library's codec cannot cancel itself out.
 *
 * Ownership: shares the queue that it feeds.
 * Threads:   every operation may be called from any thread, also from inside callbacks.
 */
class FarPeer {
public:
    using Bytes = std::vector<uint8_t>;

    /** A frame as it stands on the wire; the length is that of the payload. */
    struct Frame {
        uint8_t topicId = 0;
        uint8_t businessId = 0;
        uint8_t msgType = 0;
        uint16_t reply = 0;
        uint16_t serialNumber = 0;
        uint16_t msgId = 0;
        Bytes payload;
    };

    /** One entry of an acknowledgement frame. */
    struct Ack {
        uint16_t hold;  // ms that the acknowledgement waited at its sender
        uint16_t serialNumber;
    };

    static Bytes encode(Frame const& frame);

    /**
     * Reads bytes that hold exactly one frame. Throws std::invalid_argument, saying what is wrong,
     * for any others.
     */
    static Frame decode(Bytes const& bytes);

    static bool isAck(Frame const& frame);

    /** An acknowledgement frame; change it before it is encoded to make a wrong one. */
    static Frame ackFrame(std::vector<Ack> const& entries);

    /** The entries of an acknowledgement frame; std::invalid_argument where it is none. */
    static std::vector<Ack> ackEntries(Frame const& frame);

    /** @param queue what gets the frames of this peer; null stands for Vesk's. */
    explicit FarPeer(std::shared_ptr<VeskQueue> queue = nullptr);

    /** Hands bytes to the library as a host does that has read one frame from its channel. */
    void send(Bytes const& bytes);
    void send(Frame const& frame) { send(encode(frame)); }

    /** Acknowledges one serial number. */
    void acknowledge(uint16_t serialNumber, uint16_t hold = 0);

    /**
     * From now on acknowledges every data frame that reaches the callback's sendToChannel(), from
     * inside that call. Takes the callback's send hook; this peer must outlive it. A write that is
     * no frame ends the process with what decode() says of it.
     */
    void acknowledgeAll(android::sp<RecordingCallback> const& callback, uint16_t hold = 0);

private:
    std::shared_ptr<VeskQueue> mQueue;
};

}  // namespace vesk::testkit
