#pragma once

#include <cstdint>

namespace vesk {

/** What a frame's msgType says. */
enum MessageType : uint8_t {
    ACKNOWLEDGEMENT = 1,  // between the two libraries
    REQUEST = 2,          // to the topic's provider of the business
    REPLY = 3,            // to the session in the frame's reply field
};

}  // namespace vesk
