// A script of arrivals, sends, steps of the clock, channel losses and changes of sessions, against
// the live library; every line, write, delivery and number is compared with the simulation's
// models, which end the process at the first difference.

#include <Simulation.h>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* bytes, size_t size) {
    vesk::testkit::Random script(std::vector<uint8_t>(bytes, bytes + size));
    vesk::simulation::simulate(std::move(script), 60);
    return 0;
}
