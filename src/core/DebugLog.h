#pragma once

#include <quillex/Log.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace vesk {

constexpr size_t MAX_DIGITS = 20;  // of a 64-bit number, or of its sign and 19

template <size_t SIZE>
constexpr size_t maxLength(char const (&)[SIZE]) {
    return SIZE - 1;
}
inline size_t maxLength(std::string const& part) {
    return part.size();
}
template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
constexpr size_t maxLength(Number) {
    return MAX_DIGITS;
}

template <size_t SIZE>
char* writePart(char* out, char const (&part)[SIZE]) {  // a literal
    return std::copy(part, part + SIZE - 1, out);
}
inline char* writePart(char* out, std::string const& part) {
    return std::copy(part.begin(), part.end(), out);
}
// Once for all lines: their numbers were most of their code.
[[gnu::noinline]] inline char* writeNumber(char* out, uint32_t number) {
    return std::to_chars(out, out + MAX_DIGITS, number).ptr;
}
[[gnu::noinline]] inline char* writeNumber(char* out, int64_t number) {
    return std::to_chars(out, out + MAX_DIGITS, number).ptr;
}
[[gnu::noinline]] inline char* writeNumber(char* out, uint64_t number) {
    return std::to_chars(out, out + MAX_DIGITS, number).ptr;
}
template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
char* writePart(char* out, Number part) {
    if constexpr (std::is_signed_v<Number>) {
        return writeNumber(out, int64_t{part});
    } else if constexpr (sizeof(Number) <= sizeof(uint32_t)) {
        return writeNumber(out, uint32_t{part});
    } else {
        return writeNumber(out, uint64_t{part});
    }
}

/**
 * Whether the log drops every line. The device's own log cannot say so, and is taken to listen.
 */
template <typename Log>
auto isSilent(int) -> decltype(Log::isSilent()) {
    return Log::isSilent();
}
template <typename Log>
bool isSilent(long) {
    return false;
}

/** Makes the line on the stack; only a host's own long names can need more. */
template <typename... Parts>
[[gnu::noinline]] void writeLine(char const* tag, Parts const&... parts) {
    char buffer[256];
    std::string longLine;
    char* const line = [&] {
        size_t const size = (maxLength(parts) + ... + sizeof('\0'));
        if (size <= sizeof(buffer)) return buffer;
        longLine.resize(size);
        return longLine.data();
    }();
    char* end = line;
    ((end = writePart(end, parts)), ...);
    *end = '\0';
    quillex::Log::d(tag, line);
}

/**
 * Writes one debug line made of texts and decimal numbers. Every frame writes several, so a line
 * that nobody would read is not made.
 */
template <typename... Parts>
void debugLog(char const* tag, Parts const&... parts) {
    if (!isSilent<quillex::Log>(0)) writeLine(tag, parts...);
}

}  // namespace vesk
