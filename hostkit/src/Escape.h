#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vesk::hostkit {

enum class Escapes { TEXT, JSON };

/** Bytes that came from elsewhere, as text that is safe to print. */
struct Escaped {
    std::string text;
    size_t used = 0;     // bytes that it shows; no character is cut in the middle
    bool isUtf8 = true;  // only such text may stand in JSON
    size_t escapes = 0;  // bytes that had to be escaped
};

/** Escapes `bytes` up to `limit` of them. */
Escaped escape(std::vector<uint8_t> const& bytes, size_t limit, Escapes escapes);

/** The first `limit` bytes in hex. */
std::string hex(std::vector<uint8_t> const& bytes, size_t limit);

/** A JSON string, quotes included, of text of our own: names, which are UTF-8. */
std::string jsonString(std::string const& text);

}  // namespace vesk::hostkit
