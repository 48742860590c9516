#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <vesk/VeskExport.h>

namespace vesk {

/**
 * One protocol frame: a 12-byte little-endian header and a payload.
 *
 *     offset  width  field
 *          0      1  magic (0x55)
 *          1      2  payload length in bytes
 *          3      1  topicId
 *          4      1  businessId
 *          5      1  msgType
 *          6      2  reply
 *          8      2  serialNumber
 *         10      2  msgId
 *         12      -  data
 *
 * Ownership: always held by std::shared_ptr. A frame handed to the library is shared with it.
 * Threads:   a frame has no lock. One thread fills it and hands it on; from then on nobody changes
 *            it, but for VeskQueue::replacePacket(). Only obtainFrame() may be called from several
 *            threads at once.
 */
class VESK_EXPORT VeskFrame : public std::enable_shared_from_this<VeskFrame> {
public:
    static constexpr uint8_t MAGIC_INDEX = 0;
    static constexpr uint8_t DATASIZE_INDEX = 1;
    static constexpr uint8_t TOPICID_INDEX = 3;
    static constexpr uint8_t BUSINESSID_INDEX = 4;
    static constexpr uint8_t MSGTYPE_INDEX = 5;
    static constexpr uint8_t REPLY_INDEX = 6;
    static constexpr uint8_t SERIALNUMB_INDEX = 8;
    static constexpr uint8_t MSGID_INDEX = 10;
    static constexpr uint8_t DATA_INDEX = 12;
    static constexpr uint8_t MAGIC_NUMBER = 0x55;
    static constexpr int32_t FRAME_HEAD_SIZE = 12;

    /**
     * Makes a frame with every field zero but the magic byte.
     *
     * @param withSerial true: the frame takes the next serial number of this process (0, 1, ...
     *                   65535, 0, ...; no two frames share one within a cycle). false: the serial
     *                   number stays 0 and none is used up.
     * @return the new frame, never null.
     */
    static std::shared_ptr<VeskFrame> obtainFrame(bool const& withSerial);

    /**
     * Writes the frame's bytes into `out`, which is resized to 12 + data.size() and overwritten.
     *
     * The length on the wire is data.size() modulo 65536, whatever `dataSize` says: a payload above
     * 65535 bytes is written whole behind a length that cannot describe it, so keep below that.
     *
     * REQUIRES: `out` is not this frame's own data.
     */
    void serialze(std::vector<uint8_t>& out) const;

    /**
     * Reads a frame from `in`, which holds exactly one: everything behind the header is payload.
     *
     * Neither the magic byte nor the length field is checked; whoever cuts the byte stream into
     * frames has done that. With a payload present, `dataSize` becomes the size that `data` had
     * before the call (0 in a fresh frame) and `data` is replaced; with none, `dataSize` is the
     * header's value and `data` is left as it was. Use data.size() for the payload's length.
     *
     * REQUIRES: `in` is not this frame's own data.
     * @return false, with the frame untouched, when `in` has fewer than 12 bytes; otherwise true.
     */
    bool unSerialze(std::vector<uint8_t> const& in);

    uint8_t magic = MAGIC_NUMBER;
    uint16_t dataSize = 0;  // as last recorded; serialze() does not read it
    uint8_t topicId = 0;
    uint8_t businessId = 0;
    uint8_t msgType = 0;  // 1 acknowledgement, 2 request to a provider, 3 reply to a consumer
    uint16_t reply = 0;   // type 2: the asking session; type 3: the addressed session
    uint16_t serialNumber = 0;
    // Of the sender's choice; a reply commonly carries its request's. A frame that is sent takes an
    // earlier one with the same msgId out of the wait for acknowledgement, whatever their sessions:
    // the earlier one is then neither acknowledged nor reported as timed out. So give every frame
    // an id that no other in this process has which may still await acknowledgement (2000 ms);
    // frame->msgId = frame->serialNumber does that for frames of obtainFrame(true).
    uint16_t msgId = 0;
    std::vector<uint8_t> data;

private:
    static std::atomic<uint16_t> SERIAL_GEN;
};

}  // namespace vesk
