#include "vandrel/runtime/SimulationLogger.h"

#include <stdexcept>

void wSimulationLogger::setIndent(int n) {
    // The width is taken as unsigned: a negative one is an impossible length.
    if (n < 0) throw std::length_error("string too long");
    indent_.assign(static_cast<std::size_t>(n), ' ');
}

[[gnu::cold, gnu::noinline]] void wSimulationLogger::traceStep(const char* what, double t) {
    wSimulationLogger& log = instance();
    if (log.enabled(LOG_TRACE)) log << Indenter() << what << "(" << t << ")" << std::endl;
}
