#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <vesk/VeskExport.h>
#include <vesk/hostkit/FrameText.h>

namespace vesk::hostkit {

/**
 * Makes the bytes of a capture file (pcapng) of a channel: what came and what left, with the time
 * and the direction. Wireshark reads it, with the dissector vesk.lua, and so does vesk decode. The
 * link type is LINKTYPE_USER0 (147).
 *
 * Order of calls: begin() once; link() each time the channel is opened, before the first record of
 * it; record() for each piece of bytes, in the order of time. The owner appends what each of them
 * returns to the file, and may end the file behind any of them.
 *
 * Threads: one caller at a time. Does no I/O and reads no clock.
 */
class VESK_EXPORT CaptureWriter {
public:
    using Bytes = std::vector<uint8_t>;

    static constexpr uint16_t LINK_TYPE = 147;

    /** What a record holds at most, in bytes; more is made into several records. */
    static constexpr size_t MAX_RECORD = 262144;

    /** @param application what writes the capture, such as "my-host 1.2"; up to 65,535 bytes. */
    static Bytes begin(std::string const& application);

    /**
     * The channel has been opened. A reader takes the bytes of each opening for a stream of its
     * own: each is an interface of the capture, and begins with an empty record.
     *
     * @param name   such as "tcp:localhost:7000"; up to 65,535 bytes.
     * @param micros microseconds since 1970.
     */
    Bytes link(std::string const& name, uint64_t micros);

    /**
     * Bytes that came (IN) or were handed to the channel (OUT), in any pieces.
     *
     * REQUIRES: link() has been called.
     * @param micros microseconds since 1970.
     */
    Bytes record(FrameText::Direction direction, uint64_t micros, uint8_t const* bytes,
                 size_t size) const;

private:
    uint32_t mLinks = 0;
};

}  // namespace vesk::hostkit
