// A minimal run-time host: loads a scheme, simulates it for ten seconds of scheme time
// as the library expects (calling again exactly when simulate asks to), and prints one
// scheme output (a double wire) once per second.
//
//   vandrel_host SCHEME OUTPUT
#include <cstdio>
#include <exception>
#include <memory>

#include "vandrel/vandrel.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s SCHEME OUTPUT\n", argv[0]);
        return 2;
    }
    try {
        wSimulationSystemScheme scheme;
        scheme.loadForRuntime(argv[1]);
        // instantiate() hands over a new system: ours to delete, before the scheme goes.
        std::unique_ptr<wSimulationSystem> system(scheme.instantiate());

        double t = 0.0, nextPrint = 1.0;
        while (t < 10.0) {
            const double delay = system->simulate(t);
            if (delay < 0) break;  // nothing scheduled and nothing continuous
            t += delay;
            if (t >= nextPrint - 1e-9) {
                std::printf("%g %.6f\n", t, system->getOutput<double>(argv[2]));
                nextPrint += 1.0;
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
