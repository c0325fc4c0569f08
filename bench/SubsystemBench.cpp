// The cost of subsystems: N first-order lags in one flat scheme against the same N lags
// split into M subsystem blocks of N / M lags each (one .sch file, used M times).
//
// Each subsystem has its own explicit Euler solver with the flat scheme's step, so both
// do the same arithmetic per step: N Sum updates and N derivatives. What the subsystems
// add is their fixed cost per step: the parent's schedule (one heap entry per subsystem)
// and one nested simulate call each.
#include <benchmark/benchmark.h>

#include <memory>
#include <sstream>
#include <string>

#include "SchemeGen.h"
#include "vandrel/vandrel.h"

namespace {

constexpr double kStep = 1e-3;

void wire(std::ostringstream& s, int from, const std::string& out, int to, const std::string& in) {
    s << "    { output_block = " << from << ", output_lead = \"" << out << "\", input_block = " << to
      << ", input_lead = \"" << in << "\", port = false },\n";
}

// k lags x' = u - x with u and x0 as the subsystem's inputs; output "x" is the first state.
std::string lagsSubsystem(int k) {
    std::ostringstream s;
    s << "simulation_scheme = {\n  blocks = {\n";
    for (int i = 0; i < k; ++i) {
        s << "    { __name = \"e" << i << "\", __type = \"wBlockSummatorDescriptor<double>\", __parameters = {},\n"
          << "      inputs = { { name = \"input1\", coeff = 1 }, { name = \"input2\", coeff = -1 } } },\n";
        s << "    { __name = \"x" << i << "\", __type = \"wBlockIntegratorDescriptor<double>\", __parameters = {} },\n";
    }
    s << "  },\n  solver = { __type = \"wSolverExplEulerDescriptor\", H = " << kStep << " },\n";
    s << "  io = { inputWires = { { name = \"x\", type = 2 } }, inputPorts = {},\n"
         "         outputWires = { { name = \"u\", type = 2 }, { name = \"x0\", type = 2 } }, outputPorts = {} },\n";
    s << "  connections = {\n";
    for (int i = 0; i < k; ++i) {
        wire(s, -666, "u", 2 * i, "input1");
        wire(s, 2 * i + 1, "output", 2 * i, "input2");
        wire(s, 2 * i, "output", 2 * i + 1, "input");
        wire(s, -666, "x0", 2 * i + 1, "output.initial");
    }
    wire(s, 1, "output", -666, "x");
    s << "  },\n}\n";
    return s.str();
}

// One Constants block (u = 1, x0 = 0) feeding m subsystem blocks of `file`.
std::string lagsParent(int m, const std::string& file) {
    std::ostringstream s;
    s << "simulation_scheme = {\n  blocks = {\n";
    s << "    { __name = \"u\", __type = \"wBlockConstantsDescriptor\",\n"
         "      values = { { name = \"u\", type = 1 }, { name = \"x0\", type = 1 } },\n"
         "      __parameters = { u = { value = 1 }, x0 = { value = 0 } } },\n";
    for (int j = 0; j < m; ++j)
        s << "    { __name = \"s" << j << "\", __type = \"wBlockSubsystemDescriptor\", additional_params = {},\n"
          << "      __parameters = {}, template_scheme = \"" << file << "\" },\n";
    s << "  },\n  io = { inputWires = { { name = \"x0\", type = 2 } }, inputPorts = {}, outputWires = {}, outputPorts = {} },\n";
    s << "  connections = {\n";
    for (int j = 0; j < m; ++j) {
        wire(s, 0, "u", 1 + j, "u");
        wire(s, 0, "x0", 1 + j, "x0");
    }
    wire(s, 1, "x", -666, "x0");
    s << "  },\n}\n";
    return s.str();
}

void report(benchmark::State& state, int n) {
    const double steps = static_cast<double>(state.iterations());
    state.counters["ns_per_block_eval"] =
        benchmark::Counter(steps * 2 * n, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Range: total lags N, subsystems M (0: the flat scheme).
void BM_SubsystemLags(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const int m = static_cast<int>(state.range(1));
    std::string file;
    if (m == 0) {
        file = bench::writeTemp("vandrel-bench-flat-" + std::to_string(n) + ".lua", bench::lagsScheme(n, kStep));
    } else {
        const std::string nested = "vandrel-bench-sub-" + std::to_string(n / m);
        bench::writeTemp(nested + ".sch", lagsSubsystem(n / m));
        file = bench::writeTemp("vandrel-bench-subs-" + std::to_string(m) + ".lua", lagsParent(m, nested));
    }
    wSimulationSystemScheme scheme;
    scheme.loadForRuntime(file);
    std::unique_ptr<wSimulationSystem> system(scheme.instantiate());
    double t = 0;
    t += system->simulate(t);
    for (auto _ : state) t += system->simulate(t);
    benchmark::DoNotOptimize(system->getOutput<double>("x0"));
    report(state, n);
}
BENCHMARK(BM_SubsystemLags)->Args({1000, 0})->Args({1000, 1})->Args({1000, 100})->Args({1000, 1000});

}  // namespace
