// A script of arrivals, sends, steps of the clock, channel losses and changes of sessions, against
// the live library; every write and number is compared with the simulation's models.

#include <cstdio>
#include <cstdlib>
#include <exception>

#include <Simulation.h>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* bytes, size_t size) {
    using vesk::simulation::Simulation;
    using vesk::testkit::Random;
    try {
        Simulation simulation(Random(std::vector<uint8_t>(bytes, bytes + size)));
        simulation.run(60);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        std::abort();
    }
    return 0;
}
