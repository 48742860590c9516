// Lives through simulated minutes with the library, one seed after another.

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <map>
#include <string>

#include <vesk/VeskFrame.h>

#include "Simulation.h"

int main(int argc, char** argv) {
    CLI::App app{"Simulates the library under a hostile link; every run of a seed is the same."};
    uint64_t first = 1, seeds = 100, minutes = 10;
    app.add_option("--first", first, "the first seed")->capture_default_str();
    app.add_option("--seeds", seeds, "how many seeds")->capture_default_str();
    app.add_option("--minutes", minutes, "simulated minutes for each")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    auto const start = std::chrono::steady_clock::now();
    std::map<std::string, uint64_t> sums;
    for (uint64_t seed = first; seed < first + seeds; ++seed) {
        // A seed that fails ends the process, and a lock that is never released only its alarm.
        std::cerr << "replay: " << argv[0] << " --first " << seed << " --seeds 1 --minutes "
                  << minutes << "\n";
        alarm(300);
        // The next frame has serial number 0 then, whatever ran before in this process.
        while (vesk::VeskFrame::obtainFrame(true)->serialNumber != 0xFFFF) {
        }
        for (auto const& [name, count] :
             vesk::simulation::simulate(vesk::testkit::Random(seed), minutes))
            sums[name] += count;
    }
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
    std::cout << seeds << " seeds, " << seeds * minutes << " simulated minutes in "
              << seconds.count() << " s\n";
    for (auto const& [name, count] : sums)
        std::cout << name << ": " << count << "\n";
    return 0;
}
