#include "HexText.h"

#include <regex>

#include "Errors.h"

namespace vesk::tool {

namespace {

std::regex const OFFSET("\\s*(?:0x)?([0-9a-fA-F]{4,16})(?::\\s|:$|\\s{2,}|$)");
// Of a line with an offset, all behind three blanks or a bar is its column of characters; behind a
// colon two blanks begin it, for the bytes are then in groups with one blank between them.
std::regex const CHARACTERS("\\s{3,}\\S.*|\\|.*");
std::regex const CHARACTERS_AFTER_COLON("\\s{2,}\\S.*");
std::regex const SEPARATORS("#.*|0x|\\\\x|[\\s,;]");

}  // namespace

bool HexText::takeOffset(std::string& line) {
    std::smatch found;
    bool const known =
            std::regex_search(line, found, OFFSET, std::regex_constants::match_continuous);
    std::string const rest = found.suffix();
    bool const colon = known && found.str().find(':') != std::string::npos;
    if (!known) {
        return true;
    }
    uint64_t const offset = std::stoull(found[1], nullptr, 16);
    // Digits without a colon may be bytes as well.
    if (!colon && offset != mBytes && !mHasOffsets) {
        return true;
    }
    if (mHasOffsets && offset != mBytes) {
        throw UsageError("line " + std::to_string(mLine) + " begins with the offset " +
                         std::to_string(offset) + ", but " + std::to_string(mBytes) +
                         " bytes stand before it; paste all lines of the dump");
    }
    mHasOffsets = true;
    mBytes = offset;
    line = std::regex_replace(rest, colon ? CHARACTERS_AFTER_COLON : CHARACTERS, "");
    return !rest.empty();
}

HexText::Bytes HexText::read(std::string line) {
    ++mLine;
    Bytes bytes;
    if (!takeOffset(line)) {
        return bytes;
    }
    std::string const digits = std::regex_replace(line, SEPARATORS, "");
    size_t const wrong = digits.find_first_not_of("0123456789abcdefABCDEF");
    if (wrong != std::string::npos || digits.size() % 2 != 0) {
        throw UsageError("line " + std::to_string(mLine) + " is no hex: " +
                         (digits[0] == '*' ? "'*' stands for lines that the dump leaves out; make "
                                             "it with hexdump -v or xxd"
                          : wrong != std::string::npos
                                  ? "'" + digits.substr(wrong, 1) + "' is no digit"
                                  : "a digit is missing, for two make a byte"));
    }
    for (size_t at = 0; at < digits.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
    mBytes += bytes.size();
    return bytes;
}

}  // namespace vesk::tool
