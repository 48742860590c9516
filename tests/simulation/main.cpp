// Lives through simulated minutes with the library, one seed after another.

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <iostream>

#include "Simulation.h"

using vesk::simulation::Simulation;

namespace {

/** The next frame has serial number 0 then, whatever ran before in this process. */
void rewindSerialNumbers() {
    while (vesk::VeskFrame::obtainFrame(true)->serialNumber != 0xFFFF) {
    }
}

struct Sums {
    uint64_t seeds = 0, events = 0, writes = 0, deliveries = 0, acknowledged = 0, timedOut = 0,
             superseded = 0, cleared = 0, refused = 0;
};

void runSeed(uint64_t seed, uint64_t minutes, Sums& sums) {
    rewindSerialNumbers();
    Simulation simulation{vesk::testkit::Random(seed)};
    simulation.run(minutes);
    ++sums.seeds;
    sums.events += simulation.totals().events;
    sums.writes += simulation.totals().writes;
    sums.deliveries += simulation.totals().deliveries;
    sums.acknowledged += simulation.counters().acknowledged;
    sums.timedOut += simulation.counters().timedOut;
    sums.superseded += simulation.counters().superseded;
    sums.cleared += simulation.counters().cleared;
    sums.refused += simulation.counters().refused;
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
    for (uint64_t seed = first; seed < first + seeds; ++seed) {
        try {
            runSeed(seed, minutes, sums);
        } catch (std::exception const& error) {
            std::cout << "seed " << seed << " failed " << error.what()
                      << "\nreplay: vesk_simulation --first " << seed << " --seeds 1 --minutes "
                      << minutes << "\n";
            return 1;
        }
    }
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
    std::cout << sums.seeds << " seeds, " << sums.seeds * minutes << " simulated minutes in "
              << seconds.count() << " s: " << sums.events << " events, " << sums.writes
              << " frames written, " << sums.deliveries << " delivered; " << sums.acknowledged
              << " acknowledged, " << sums.timedOut << " timed out, " << sums.superseded
              << " superseded, " << sums.cleared << " cleared, " << sums.refused
              << " refused at the bound\n";
    return 0;
}
