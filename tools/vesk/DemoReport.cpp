#include "DemoReport.h"

#include <unistd.h>

#include <cstdio>

namespace vesk::tool {

namespace {

constexpr size_t BAR_WIDTH = 50;

void printRow(char const* name, CallReport const& report) {
    std::printf("%-24s %9zu %9zu %6zu", name, report.requests, report.replies, report.lost);
}

}  // namespace

void printTable(DemoRows const& rows) {
    std::printf("%-24s %9s %9s %6s %10s %10s\n", "business", "requests", "replies", "lost", "p50",
                "p99");
    CallReport total;
    for (auto const& [name, report] : rows) {
        printRow(name.c_str(), report);
        std::printf(" %10s %10s\n", formatMicros(report.p50Micros).c_str(),
                    formatMicros(report.p99Micros).c_str());
        total.requests += report.requests;
        total.replies += report.replies;
        total.lost += report.lost;
        total.wrong += report.wrong;
    }
    printRow("total", total);
    std::printf("\n\nreplies with wrong bytes: %zu\n", total.wrong);
}

void printHost(char const* name, client::Counters const& counters) {
    auto const number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf(
            "%-9s sent %llu packets, received %llu; last delay %llu ms, slow %llu; skipped "
            "%llu bytes, reconnected %llu times\n",
            name, number(counters.sentPackets), number(counters.receivedPackets),
            number(counters.lastDelayMillis), number(counters.slowCount),
            number(counters.skippedBytes), number(counters.reconnects));
}

void printProgress(size_t done, size_t total) {
    if (::isatty(STDOUT_FILENO) == 0) return;
    size_t const filled = total == 0 ? BAR_WIDTH : BAR_WIDTH * done / total;
    std::printf("\r[%s%s] %zu of %zu", std::string(filled, '#').c_str(),
                std::string(BAR_WIDTH - filled, '.').c_str(), done, total);
    std::fflush(stdout);
}

void clearProgress() {
    if (::isatty(STDOUT_FILENO) == 0) return;
    std::printf("\r\033[K");
    std::fflush(stdout);
}

}  // namespace vesk::tool
