#include <vesk/testkit/FarPeer.h>

#include <stdexcept>
#include <string>
#include <utility>

#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>
#include <vesk/testkit/RecordingCallback.h>

namespace vesk::testkit {

namespace {

// How the bytes of a frame are laid out is written down a second time here, on purpose.
constexpr uint8_t MAGIC = 'U';
constexpr size_t HEADER_SIZE = 12;

void put16(FarPeer::Bytes& out, size_t value) {
    out.push_back(static_cast<uint8_t>(value & 0xFF));
    out.push_back(static_cast<uint8_t>(value >> 8 & 0xFF));
}

uint16_t get16(FarPeer::Bytes const& in, size_t at) {
    return static_cast<uint16_t>(in[at] + in[at + 1] * 256);
}

[[noreturn]] void reject(std::string const& why) {
    throw std::invalid_argument(why);
}

}  // namespace

FarPeer::FarPeer(std::shared_ptr<VeskQueue> queue)
    : mQueue(queue ? std::move(queue) : Vesk::getInstance()->getQueue()) {}

FarPeer::Bytes FarPeer::encode(Frame const& frame) {
    if (frame.payload.size() > 0xFFFF) {
        reject("the payload has " + std::to_string(frame.payload.size()) +
               " bytes; the length field carries 65535 at most");
    }
    Bytes out{MAGIC};
    put16(out, frame.payload.size());
    out.push_back(frame.topicId);
    out.push_back(frame.businessId);
    out.push_back(frame.msgType);
    put16(out, frame.reply);
    put16(out, frame.serialNumber);
    put16(out, frame.msgId);
    out.insert(out.end(), frame.payload.begin(), frame.payload.end());
    return out;
}

FarPeer::Frame FarPeer::decode(Bytes const& bytes) {
    if (bytes.size() < HEADER_SIZE) {
        reject(std::to_string(bytes.size()) + " bytes are no frame; its header alone has 12");
    }
    if (bytes[0] != MAGIC) {
        reject("the first byte is " + std::to_string(bytes[0]) + "; a frame begins with 85 ('U')");
    }
    if (get16(bytes, 1) != bytes.size() - HEADER_SIZE) {
        reject("the length field says " + std::to_string(get16(bytes, 1)) + "; the payload has " +
               std::to_string(bytes.size() - HEADER_SIZE) + " bytes");
    }
    return {bytes[3],
            bytes[4],
            bytes[5],
            get16(bytes, 6),
            get16(bytes, 8),
            get16(bytes, 10),
            Bytes(bytes.begin() + HEADER_SIZE, bytes.end())};
}

bool FarPeer::isAck(Frame const& frame) {
    return frame.msgType == ACKNOWLEDGEMENT && frame.topicId == ACK_ID &&
           frame.businessId == ACK_ID;
}

FarPeer::Frame FarPeer::ackFrame(std::vector<Ack> const& entries) {
    Frame frame{ACK_ID, ACK_ID, ACKNOWLEDGEMENT, static_cast<uint16_t>(entries.size()), 0,
                ACK_ID, {}};
    for (Ack const& entry : entries) {
        put16(frame.payload, entry.hold);
        put16(frame.payload, entry.serialNumber);
    }
    return frame;
}

std::vector<FarPeer::Ack> FarPeer::ackEntries(Frame const& frame) {
    if (!isAck(frame) || frame.payload.size() != ACK_ENTRY_SIZE * frame.reply) {
        reject("no acknowledgement frame: it has type 1, topic and business 170, and 4 bytes for "
               "each of the entries that its reply field counts");
    }
    std::vector<Ack> entries;
    for (size_t at = 0; at < frame.payload.size(); at += ACK_ENTRY_SIZE) {
        entries.push_back({get16(frame.payload, at), get16(frame.payload, at + 2)});
    }
    return entries;
}

void FarPeer::send(Bytes const& bytes) {
    auto const frame = VeskFrame::obtainFrame(false);
    if (!frame->unSerialze(bytes)) {
        reject(std::to_string(bytes.size()) + " bytes are no frame; its header alone has 12");
    }
    mQueue->receiveFromChannel(frame);
}

void FarPeer::acknowledge(uint16_t serialNumber, uint16_t hold) {
    send(ackFrame({{hold, serialNumber}}));
}

void FarPeer::acknowledgeAll(android::sp<RecordingCallback> const& callback, uint16_t hold) {
    callback->onSend([this, hold](Bytes const& bytes) {
        Frame const frame = decode(bytes);
        if (!isAck(frame)) acknowledge(frame.serialNumber, hold);
    });
}

}  // namespace vesk::testkit
