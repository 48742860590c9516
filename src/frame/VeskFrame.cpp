#include <vesk/VeskFrame.h>

#include <array>

#include "frame/ByteOrder.h"

namespace vesk {

// Each field begins where the one before it ends, on every platform.
using F = VeskFrame;
static_assert(F::MAGIC_INDEX == 0 && F::DATASIZE_INDEX == F::MAGIC_INDEX + sizeof(F::magic));
static_assert(F::TOPICID_INDEX == F::DATASIZE_INDEX + sizeof(F::dataSize));
static_assert(F::BUSINESSID_INDEX == F::TOPICID_INDEX + sizeof(F::topicId));
static_assert(F::MSGTYPE_INDEX == F::BUSINESSID_INDEX + sizeof(F::businessId));
static_assert(F::REPLY_INDEX == F::MSGTYPE_INDEX + sizeof(F::msgType));
static_assert(F::SERIALNUMB_INDEX == F::REPLY_INDEX + sizeof(F::reply));
static_assert(F::MSGID_INDEX == F::SERIALNUMB_INDEX + sizeof(F::serialNumber));
static_assert(F::DATA_INDEX == F::MSGID_INDEX + sizeof(F::msgId));
static_assert(F::FRAME_HEAD_SIZE == F::DATA_INDEX);

std::atomic<uint16_t> VeskFrame::SERIAL_GEN{0};

std::shared_ptr<VeskFrame> VeskFrame::obtainFrame(bool const& withSerial) {
    auto frame = std::make_shared<VeskFrame>();
    if (withSerial) {
        // The count begins anew behind 65535: a number only has to differ from those of the frames
        // that still await acknowledgement.
        frame->serialNumber = SERIAL_GEN.fetch_add(1);
    }
    return frame;
}

void VeskFrame::serialze(std::vector<uint8_t>& out) const {
    std::array<uint8_t, FRAME_HEAD_SIZE> head;
    head[MAGIC_INDEX] = magic;
    putU16(&head[DATASIZE_INDEX], static_cast<uint16_t>(data.size()));
    head[TOPICID_INDEX] = topicId;
    head[BUSINESSID_INDEX] = businessId;
    head[MSGTYPE_INDEX] = msgType;
    putU16(&head[REPLY_INDEX], reply);
    putU16(&head[SERIALNUMB_INDEX], serialNumber);
    putU16(&head[MSGID_INDEX], msgId);
    // Nothing is resized first: that would fill bytes with zeros for nothing.
    out.reserve(head.size() + data.size());
    out.assign(head.begin(), head.end());
    out.insert(out.end(), data.begin(), data.end());
}

bool VeskFrame::unSerialze(std::vector<uint8_t> const& in) {
    if (in.size() < FRAME_HEAD_SIZE) {
        return false;
    }
    magic = in[MAGIC_INDEX];
    dataSize = getU16(&in[DATASIZE_INDEX]);
    topicId = in[TOPICID_INDEX];
    businessId = in[BUSINESSID_INDEX];
    msgType = in[MSGTYPE_INDEX];
    reply = getU16(&in[REPLY_INDEX]);
    serialNumber = getU16(&in[SERIALNUMB_INDEX]);
    msgId = getU16(&in[MSGID_INDEX]);
    if (in.size() > FRAME_HEAD_SIZE) {
        // The size before the copy: readers take the length from data itself.
        dataSize = static_cast<uint16_t>(data.size());
        data.assign(in.begin() + DATA_INDEX, in.end());
    }
    return true;
}

}  // namespace vesk
