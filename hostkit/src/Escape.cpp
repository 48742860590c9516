#include "Escape.h"

#include <algorithm>
#include <cstdio>

namespace vesk::hostkit {

namespace {

struct Character {
    uint32_t code;
    size_t size;  // in bytes; 0, with code 0: these are no UTF-8
};

/** How many bytes the character has that begins with this one; 0: none does. */
size_t sizeBy(uint8_t first) {
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first < 0xE0) return 2;
    if (first >= 0xE0 && first < 0xF0) return 3;
    return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

Character characterAt(uint8_t const* bytes, size_t left) {
    size_t const size = sizeBy(*bytes);
    if (size == 0 || size > left) return {0, 0};
    uint32_t code = size == 1 ? *bytes : *bytes & (0x7FU >> size);
    for (size_t i = 1; i < size; ++i) {
        if ((bytes[i] & 0xC0) != 0x80) return {0, 0};
        code = code << 6 | (bytes[i] & 0x3FU);
    }
    bool const overlong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
    bool const surrogate = code >= 0xD800 && code < 0xE000;
    if (overlong || surrogate || code > 0x10FFFF) return {0, 0};
    return {code, size};
}

bool isUnsafe(uint32_t code) {
    bool const control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    bool const separator = code == 0x2028 || code == 0x2029;
    bool const direction = code == 0x61C || code == 0x200E || code == 0x200F ||
                           (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    return control || separator || direction;
}

std::string format(char const* form, unsigned value) {
    char text[16];
    std::snprintf(text, sizeof(text), form, value);
    return text;
}

/** A character that is escaped by a letter in both kinds of text; 0: it is not. */
char letterFor(uint32_t code) {
    switch (code) {
        case '\n':
            return 'n';
        case '\r':
            return 'r';
        case '\t':
            return 't';
        case '"':
        case '\\':
            return static_cast<char>(code);
        default:
            return 0;
    }
}

}  // namespace

Escaped escape(std::vector<uint8_t> const& bytes, size_t limit, Escapes escapes) {
    Escaped result;
    size_t const end = std::min(limit, bytes.size());
    while (result.used < end) {
        uint8_t const* const at = &bytes[result.used];
        Character const character = characterAt(at, bytes.size() - result.used);
        size_t const size = std::max<size_t>(character.size, 1);
        if (result.used + size > end) break;
        result.used += size;
        result.isUtf8 = result.isUtf8 && character.size > 0;
        if (letterFor(character.code)) {
            result.text += {'\\', letterFor(character.code)};
        } else if (!isUnsafe(character.code)) {
            result.text.append(at, at + size);
        } else if (escapes == Escapes::JSON) {
            result.text += format("\\u%04X", character.code);
            result.escapes += size;
        } else {
            for (size_t i = 0; i < size; ++i)
                result.text += format("\\x%02X", at[i]);
            result.escapes += size;
        }
    }
    return result;
}

std::string hex(std::vector<uint8_t> const& bytes, size_t limit) {
    std::string text;
    for (size_t i = 0; i < std::min(limit, bytes.size()); ++i)
        text += format("%02X", bytes[i]);
    return text;
}

std::string jsonString(std::string const& text) {
    return '"' + escape({text.begin(), text.end()}, text.size(), Escapes::JSON).text + '"';
}

}  // namespace vesk::hostkit
