#pragma once

#include <cstddef>
#include <cstdint>

#include <vesk/VeskFrame.h>

#include "frame/MessageType.h"

namespace vesk {

constexpr uint8_t ACK_ID = 0xAA;          // topic, business and msgId of an acknowledgement frame
constexpr size_t ACK_ENTRY_SIZE = 2 + 2;  // hold time in ms, serial number

inline bool isAcknowledgement(VeskFrame const& frame) {
    return frame.msgType == ACKNOWLEDGEMENT && frame.topicId == ACK_ID &&
           frame.businessId == ACK_ID;
}

}  // namespace vesk
