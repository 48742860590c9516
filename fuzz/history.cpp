// A script of arrivals, sends, steps of the clock, channel losses and changes of sessions, against
// the live library; every write and number is compared with the simulation's models.

#include <cstdio>
#include <cstdlib>
#include <exception>

#include <Simulation.h>

using vesk::simulation::Simulation;

namespace {

bool fails(std::vector<uint8_t> const& script) {
    unsigned const serial = vesk::VeskFrame::obtainFrame(true)->serialNumber;
    try {
        Simulation simulation{vesk::testkit::Random(script)};
        simulation.run(60);
        return false;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "serial numbers after %u: %s\n", serial, error.what());
        return true;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* bytes, size_t size) {
    std::vector<uint8_t> const script(bytes, bytes + size);
    // Serial numbers go on from one input to the next, while a replay of the file begins at 0.
    if (!fails(script)) return 0;
    Simulation::restartSerials();
    if (!fails(script)) std::fprintf(stderr, "serial numbers after 0: passes, as its file will\n");
    std::abort();
}
