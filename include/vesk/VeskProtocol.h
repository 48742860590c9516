#pragma once

#include <cstddef>
#include <cstdint>

/**
 * The numbers of the protocol that both ends of a channel and their tools have to agree on. The
 * bytes of a frame are in VeskFrame.h; times are in milliseconds.
 */
namespace vesk {

/** What a frame's msgType says. */
enum MessageType : uint8_t {
    ACKNOWLEDGEMENT = 1,  // between the two libraries
    REQUEST = 2,          // to the topic's provider of the business
    REPLY = 3,            // to the session in the frame's reply field
};

/** Topic id, business id and msgId of an acknowledgement frame. */
constexpr uint8_t ACK_ID = 0xAA;

/** An acknowledgement frame's data: so many bytes for each frame acknowledged. */
constexpr size_t ACK_ENTRY_SIZE = 2 + 2;  // hold time in ms, serial number; little-endian

/** What the length field of a frame can carry, in bytes. */
constexpr size_t MAX_PAYLOAD_SIZE = 65535;

/** Frames of this priority are sent at once, all others are held back. */
constexpr int IMMEDIATE_PRIORITY = 1;

constexpr uint16_t HOLD_BACK_MS = 2000;    // from admission to sending
constexpr uint16_t ACK_TIMEOUT_MS = 2000;  // from sending until no acknowledgement is awaited

constexpr size_t MAX_PENDING = 1000;       // packets that wait to be sent
constexpr size_t MAX_AWAITING_ACK = 1000;  // packets sent and not yet acknowledged

/** Owed acknowledgements leave when so many are owed, or so long after the oldest. */
constexpr size_t ACK_BATCH_COUNT = 5;
constexpr uint64_t ACK_BATCH_AGE_MS = 500;

/** With more than this owed at once, all of them are forgotten. */
constexpr size_t MAX_OWED_ACKS = 1000;
static_assert(MAX_OWED_ACKS * ACK_ENTRY_SIZE <= MAX_PAYLOAD_SIZE, "one frame carries all of them");

/** The delay that VeskFeedback shows for a packet that was never acknowledged. */
constexpr unsigned int TIMEOUT_DELAY_MS = 60000;

}  // namespace vesk
