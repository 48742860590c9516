#pragma once

#include <cstdint>

namespace vesk::hostkit {

/** A 16-bit field of the wire: little-endian, at any address. */
inline uint16_t getU16(uint8_t const* from) {
    return static_cast<uint16_t>(from[0] | from[1] << 8);
}

}  // namespace vesk::hostkit
