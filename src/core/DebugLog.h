#pragma once

#include <quillex/Log.h>

#include <string>
#include <type_traits>

namespace vesk {

inline void appendLogPart(std::string& line, char const* part) {
    line += part;
}
inline void appendLogPart(std::string& line, std::string const& part) {
    line += part;
}
template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
void appendLogPart(std::string& line, Number part) {
    line += std::to_string(part);
}

/** Writes one debug line made of texts and decimal numbers. */
template <typename... Parts>
void debugLog(char const* tag, Parts const&... parts) {
    std::string line;
    (appendLogPart(line, parts), ...);
    quillex::Log::d(tag, line.c_str());
}

}  // namespace vesk
