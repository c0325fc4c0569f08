// Bridges two running schemes through a bit stream: after every step of the sending
// scheme, the host hands a fresh Mail::BitStream to the sender's Serializer (scheme input
// port "tx"), which writes its wires into it; then hands the same bytes to the receiver's
// Deserializer (port "rx"), which reads them into its wires, and steps the receiver. The
// bytes could just as well cross a socket or a file in between.
//
//   wire_bridge PLANT MONITOR [SECONDS]
//
// Prints once per second: time, the receiver's "fahrenheit", "hot" and "ok" outputs,
// and the size of the message in bits.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "vandrel/vandrel.h"

namespace {

// The stream port of a scheme: a scheme input port of type "object ptr" whose consumer
// takes Mail::Stream objects (a Serializer or a Deserializer).
wInputPortObjPtrBase<Mail::Stream>& streamPort(wSimulationSystem& system, const char* name) {
    auto* port = dynamic_cast<wInputPortObjPtrBase<Mail::Stream>*>(system.getInputPort(name));
    if (port == nullptr) throw std::runtime_error(std::string("scheme input port ") + name + " takes no stream");
    return *port;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: %s PLANT MONITOR [SECONDS]\n", argv[0]);
        return 2;
    }
    const double until = argc == 4 ? std::atof(argv[3]) : 10.0;
    try {
        wSimulationSystemScheme plantScheme, monitorScheme;
        plantScheme.loadForRuntime(argv[1]);
        monitorScheme.loadForRuntime(argv[2]);
        std::unique_ptr<wSimulationSystem> plant(plantScheme.instantiate());
        std::unique_ptr<wSimulationSystem> monitor(monitorScheme.instantiate());
        auto& tx = streamPort(*plant, "tx");
        auto& rx = streamPort(*monitor, "rx");

        double t = 0.0, nextPrint = 1.0;
        while (t < until - 1e-9) {
            // The plant runs its events at t and integrates ahead to the time it asks
            // to be called again; its wires now hold the values of that time.
            const double delay = plant->simulate(t);
            if (delay < 0) break;  // nothing scheduled and nothing continuous
            t += delay;

            // Sender side: the Serializer writes its wires into an empty stream.
            Mail::BitStream message;
            tx.setValue(&message);

            // Receiver side: the bytes are read back in the same order, then the
            // receiver's blocks fed by the Deserializer run in its simulate.
            Mail::BitStream received(message.bytes());
            rx.setValue(&received);
            monitor->simulate(t);

            if (t >= nextPrint - 1e-9) {
                std::printf("%g %.3f %d %d %zu\n", t, monitor->getOutput<double>("fahrenheit"),
                            monitor->getOutput<bool>("hot") ? 1 : 0, monitor->getOutput<bool>("ok") ? 1 : 0,
                            message.bitCount());
                nextPrint += 1.0;
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
