#pragma once

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace vesk::tool {

/** What came of the requests of one consumer. */
struct CallReport {
    size_t requests = 0;
    size_t replies = 0;
    size_t lost = 0;   // no reply in time
    size_t wrong = 0;  // replies that were not what the request said
    uint64_t p50Micros = 0;
    uint64_t p99Micros = 0;

    bool complete() const { return replies == requests && lost == 0 && wrong == 0; }

    /** One line for another program to read; parse() takes it back. */
    std::string line() const {
        return "result " + std::to_string(requests) + " " + std::to_string(replies) + " " +
               std::to_string(lost) + " " + std::to_string(wrong) + " " +
               std::to_string(p50Micros) + " " + std::to_string(p99Micros);
    }

    static std::optional<CallReport> parse(std::string const& line) {
        CallReport report;
        int const fields = std::sscanf(line.c_str(), "result %zu %zu %zu %zu %" SCNu64 " %" SCNu64,
                                       &report.requests, &report.replies, &report.lost,
                                       &report.wrong, &report.p50Micros, &report.p99Micros);
        return fields == 6 ? std::optional<CallReport>(report) : std::nullopt;
    }
};

/** "870 us" or "12.3 ms" */
inline std::string formatMicros(uint64_t micros) {
    if (micros < 1000) return std::to_string(micros) + " us";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(micros) / 1000);
    return text;
}

}  // namespace vesk::tool
