#include "WatchPrinter.h"

#include <cstdint>
#include <cstdio>

#include <vesk/VeskProtocol.h>
#include <vesk/hostkit/FrameText.h>
#include <nlohmann/json.hpp>

#include "Output.h"

namespace vesk::tool {

namespace {

using client::Counters;
using Json = nlohmann::ordered_json;

struct Field {
    char const* words;
    char const* json;
    uint64_t Counters::*value;
};

constexpr Field FIELDS[] = {
        {"pending", "pending", &Counters::pending},
        {"awaiting ack", "awaitingAck", &Counters::awaitingAck},
        {"owed acks", "owedAcks", &Counters::owedAcks},
        {"sent", "sent", &Counters::sentPackets},
        {"received", "received", &Counters::receivedPackets},
        {"last delay", "delayMs", &Counters::lastDelayMillis},
        {"slow", "slow", &Counters::slowCount},
        {"clients", "clients", &Counters::clients},
        {"providers", "providers", &Counters::providers},
        {"skipped bytes", "skippedBytes", &Counters::skippedBytes},
        {"reconnects", "reconnects", &Counters::reconnects},
        {"refused", "refused", &Counters::refused},
        {"evicted", "evicted", &Counters::evicted},
};

bool isDelay(Field const& field) {
    return field.value == &Counters::lastDelayMillis;
}

std::vector<std::string> inWords(Counters const& counters) {
    std::vector<std::string> words{counters.channelUp != 0 ? "channel up" : "channel down"};
    for (Field const& field : FIELDS) {
        words.push_back(std::string(field.words) + ' ' +
                        (isDelay(field) ? delayText(counters.*field.value)
                                        : std::to_string(counters.*field.value)));
    }
    return words;
}

// In ASCII, so that names from elsewhere do nothing to a terminal.
std::string lineOf(Json const& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string inJson(Counters const& counters) {
    Json numbers{{"up", counters.channelUp != 0}};
    for (Field const& field : FIELDS) {
        uint64_t const value = counters.*field.value;
        numbers[field.json] =
                isDelay(field) && value >= TIMEOUT_DELAY_MS ? Json(nullptr) : Json(value);
    }
    return lineOf({{"counters", numbers}});
}

/** As many of the words in each line as fit. */
std::vector<std::string> packed(std::vector<std::string> const& words, size_t width) {
    std::vector<std::string> lines;
    for (std::string const& word : words) {
        if (lines.empty() || lines.back().size() + 2 + word.size() >= width) {
            lines.push_back(word);
        } else {
            lines.back() += ", " + word;
        }
    }
    return lines;
}

}  // namespace

void WatchPrinter::change(std::string const& what, std::string const& name, bool added) {
    if (mForm == Form::JSON) return print(lineOf({{what, name}, {"added", added}}));
    print(what + ' ' + hostkit::FrameText::escape(name) + (added ? " added" : " removed"));
}

void WatchPrinter::notice(std::string const& text) {
    if (mForm == Form::JSON) return print(lineOf({{"notice", text}}));
    print("host: " + hostkit::FrameText::escape(text));
}

void WatchPrinter::counters(Counters const& counters) {
    bool const isJson = mForm == Form::JSON;
    std::vector<std::string> now = isJson ? std::vector{inJson(counters)} : inWords(counters);
    if (now == mCounters) return;
    mCounters = std::move(now);
    if (mForm != Form::SCREEN) return print(packed(mCounters, SIZE_MAX)[0]);
    erase();
    draw();
}

void WatchPrinter::print(std::string const& line) {
    erase();
    std::puts(line.c_str());
    draw();
}

void WatchPrinter::erase() {
    if (mDrawn > 0) std::printf("\x1b[%zuA\x1b[J", mDrawn);
    mDrawn = 0;
}

// Whoever reads this through a pipe wants it now, or has seen enough.
void WatchPrinter::draw() {
    if (mForm == Form::SCREEN) {
        for (std::string const& line : packed(mCounters, terminalWidth())) {
            std::puts(line.c_str());
            ++mDrawn;
        }
    }
    flushOutput();
}

}  // namespace vesk::tool
