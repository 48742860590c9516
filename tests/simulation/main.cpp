// Lives through simulated minutes with the library, one seed after another.

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Simulation.h"

namespace {

/** Seeds that have failed once and run before all others; there are none so far. */
std::vector<uint64_t> const ONCE_FAILED{};

std::map<std::string, uint64_t> runSeed(uint64_t seed, uint64_t minutes) {
    // The next frame has serial number 0 then, whatever ran before in this process.
    while (vesk::VeskFrame::obtainFrame(true)->serialNumber != 0xFFFF) {
    }
    vesk::simulation::Simulation simulation{vesk::testkit::Random(seed)};
    simulation.run(minutes);
    return simulation.totals();
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
    std::map<std::string, uint64_t> sums;
    std::vector<uint64_t> run;
    if (first == 1) run = ONCE_FAILED;
    for (uint64_t seed = first; seed < first + seeds; ++seed)
        run.push_back(seed);
    for (uint64_t const seed : run) {
        auto const replay = std::string(argv[0]) + " --first " + std::to_string(seed) +
                            " --seeds 1 --minutes " + std::to_string(minutes);
        std::cerr << "running: " + replay + "\n";  // before a sanitizer or a signal ends it
        try {
            for (auto const& [name, count] : runSeed(seed, minutes)) {
                sums[name] += count;
            }
        } catch (std::exception const& error) {
            std::cout << "seed " << seed << " failed " << error.what() << "\nreplay: " << replay
                      << "\n";
            return 1;
        }
    }
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
    std::cout << run.size() << " seeds, " << run.size() * minutes << " simulated minutes in "
              << seconds.count() << " s\n";
    for (auto const& [name, count] : sums) {
        std::cout << name << ": " << count << "\n";
    }
    return 0;
}
