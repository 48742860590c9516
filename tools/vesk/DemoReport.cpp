#include "DemoReport.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Output.h"

namespace vesk::tool {

namespace {

constexpr size_t BAR_WIDTH = 50;  // at most

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
            "%-9s sent %llu frames, received %llu; last delay %s, slow %llu; skipped "
            "%llu bytes, reconnected %llu times\n",
            name, number(counters.sentPackets), number(counters.receivedPackets),
            delayText(counters.lastDelayMillis).c_str(), number(counters.slowCount),
            number(counters.skippedBytes), number(counters.reconnects));
}

void printProgress(size_t done, size_t total) {
    if (::isatty(STDOUT_FILENO) == 0) return;
    std::string const count = std::to_string(done) + " of " + std::to_string(total) + " replies";
    // With the brackets and two blanks, one of which keeps the cursor in the line.
    size_t const room = terminalWidth() - std::min(terminalWidth(), count.size() + 4);
    size_t const width = std::min(BAR_WIDTH, room);
    size_t const filled = total == 0 ? width : width * done / total;
    std::printf("\r[%s%s] %s", std::string(filled, '#').c_str(),
                std::string(width - filled, '.').c_str(), count.c_str());
    std::fflush(stdout);
}

void clearProgress() {
    if (::isatty(STDOUT_FILENO) == 0) return;
    std::printf("\r\033[K");
    std::fflush(stdout);
}

}  // namespace vesk::tool
