// Lives through simulated minutes with the library, one seed after another.

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "Simulation.h"

using vesk::simulation::Simulation;

namespace {

/** Seeds that once failed, each with what it found; they run first. */
constexpr uint64_t ONCE_FAILED[] = {0};

struct Sums {
    uint64_t seeds = 0, events = 0, writes = 0, deliveries = 0, acknowledged = 0, timedOut = 0,
             superseded = 0, cleared = 0, refused = 0;

    void add(Simulation::Totals const& totals) {
        ++seeds;
        events += totals.events;
        writes += totals.writes;
        deliveries += totals.deliveries;
        acknowledged += totals.queue.acknowledged;
        timedOut += totals.queue.timedOut;
        superseded += totals.queue.superseded;
        cleared += totals.queue.cleared;
        refused += totals.queue.refused;
    }
};

bool runSeed(uint64_t seed, uint64_t minutes, Sums& sums) {
    try {
        Simulation simulation(seed);
        simulation.run(minutes);
        sums.add(simulation.totals());
        return true;
    } catch (std::exception const& error) {
        std::printf(
                "seed %llu failed %s\nreplay: vesk_simulation --first %llu --seeds 1 "
                "--minutes %llu\n",
                static_cast<unsigned long long>(seed), error.what(),
                static_cast<unsigned long long>(seed), static_cast<unsigned long long>(minutes));
        return false;
    }
}

void print(Sums const& sums, uint64_t minutes, double seconds) {
    auto const row = [](char const* name, uint64_t value) {
        std::printf("  %-24s %12llu\n", name, static_cast<unsigned long long>(value));
    };
    std::printf("%llu seeds, %.1f simulated hours in %.1f s\n",
                static_cast<unsigned long long>(sums.seeds),
                static_cast<double>(sums.seeds * minutes) / 60, seconds);
    row("events", sums.events);
    row("frames written", sums.writes);
    row("frames delivered", sums.deliveries);
    row("acknowledged", sums.acknowledged);
    row("timed out", sums.timedOut);
    row("superseded", sums.superseded);
    row("cleared", sums.cleared);
    row("refused at the bound", sums.refused);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Simulates the library under a hostile link; every run of a seed is the same."};
    uint64_t first = 1, seeds = 100, minutes = 10;
    app.add_option("--first", first, "the first seed")->capture_default_str();
    app.add_option("--seeds", seeds, "how many seeds")->capture_default_str();
    app.add_option("--minutes", minutes, "simulated minutes for each")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    auto const start = std::chrono::steady_clock::now();
    Sums sums;
    bool passed = true;
    if (seeds > 1) {
        for (uint64_t seed : ONCE_FAILED) {
            passed = runSeed(seed, minutes, sums) && passed;
        }
    }
    for (uint64_t seed = first; seed < first + seeds && passed; ++seed) {
        passed = runSeed(seed, minutes, sums);
    }
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
    print(sums, minutes, seconds.count());
    return passed ? 0 : 1;
}
