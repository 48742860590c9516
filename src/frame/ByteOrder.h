#pragma once

#include <cstdint>

namespace vesk {

/** The channel's 16-bit fields are little-endian and stand at any offset. */
inline void putU16(uint8_t* out, uint16_t value) {
    out[0] = static_cast<uint8_t>(value & 0xFF);
    out[1] = static_cast<uint8_t>(value >> 8);
}

inline uint16_t getU16(uint8_t const* in) {
    return static_cast<uint16_t>(in[0] | (in[1] << 8));
}

}  // namespace vesk
