#pragma once
// Generated schemes for the benchmarks, written as scheme files so that the benchmarks
// measure what users run (and the load benchmark measures real parsing).
#include <string>

namespace bench {

// N independent first-order lags x' = u - x: one Constants block (u = 1, x0 = 0), then per
// lag a Sum (dbl) e = u - x and an Integrator (dbl) x' = e; explicit Euler with step H.
// Scheme output "x0" is the first lag's state. 2N + 1 blocks, 4N connections.
std::string lagsScheme(int n, double H);

// `n` discrete blocks with different periods: Ramps (dt from 1 to 10 ms, target from one
// Constants block) and Delay trigger wires (dt from 1 to 10 ms), alternating.
std::string eventsScheme(int n);
// Events the eventsScheme(n) runs in [0, T] (each block runs at 0, dt, 2dt, ... <= T).
long long eventsIn(int n, double T);

// Writes text to a file in the temporary directory and returns its path.
std::string writeTemp(const std::string& name, const std::string& text);

}  // namespace bench
