// Lives through simulated minutes with the library, one seed after another.

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <iostream>

#include <vesk/Vesk.h>
#include <vesk/VeskFrame.h>
#include <vesk/VeskQueue.h>

#include "Simulation.h"

int main(int argc, char** argv) {
    CLI::App app{"Simulates the library under a hostile link; every run of a seed is the same."};
    uint64_t first = 1, seeds = 100, minutes = 10;
    app.add_option("--first", first, "the first seed")->capture_default_str();
    app.add_option("--seeds", seeds, "how many seeds")->capture_default_str();
    app.add_option("--minutes", minutes, "simulated minutes for each")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    for (uint64_t seed = first; seed < first + seeds; ++seed) {
        // A seed that fails ends the process, and a lock that is never released only its alarm.
        std::cerr << "replay: " << argv[0] << " --first " << seed << " --seeds 1 --minutes "
                  << minutes << "\n";
        alarm(300);
        // The next frame has serial number 0 then, whatever ran before in this process.
        while (vesk::VeskFrame::obtainFrame(true)->serialNumber != 0xFFFF) {
        }
        vesk::simulation::simulate(vesk::testkit::Random(seed), minutes);
    }
    std::cout << seeds << " seeds, " << seeds * minutes << " simulated minutes, "
              << vesk::Vesk::getInstance()->getQueue()->acknowledged() << " acknowledgements\n";
    return 0;
}
