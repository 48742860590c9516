#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vesk::tool {

/**
 * Reads bytes that somebody has pasted as text: hex digits in pairs, with or without blanks, commas
 * or 0x between them, '#' before a comment; and the output of xxd, hexdump -C and Wireshark, whose
 * offsets are checked and whose column of characters is left out.
 */
class HexText {
public:
    using Bytes = std::vector<uint8_t>;

    /**
     * The bytes of the next line. Throws UsageError, naming the line, where it is no hex.
     * @param line without its line break.
     */
    Bytes read(std::string line);

private:
    /** Takes the offset off the line; false where the line is the last one of a dump. */
    bool takeOffset(std::string& line);

    size_t mLine = 0;
    uint64_t mBytes = 0;  // so far
    bool mHasOffsets = false;
};

}  // namespace vesk::tool
