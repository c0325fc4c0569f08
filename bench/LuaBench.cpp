// Lua script block: run calls per second, with a trivial script and with a 20-line
// controller, under the default limits (the instruction-budget hook on) and without them.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "SchemeGen.h"
#include "vandrel/vandrel.h"

namespace {

// run returns at once.
const char* const kTrivial = R"(
function init() end
function run(t) return 0.001 end
)";

// A PI level controller with anti-windup and a small state machine (20 lines of run).
const char* const kController = R"(
function init() integral = 0; mode = 0; last = 0 end
function run(t)
  local sp, h = inputs.setpoint(), inputs.level()
  local e = sp - h
  local dt = t - last
  last = t
  if mode == 0 and e > 0.05 then mode = 1 elseif mode == 1 and e < -0.05 then mode = 0 end
  local kp, ki = 2.5, 0.1
  if mode == 0 then kp = 1.0 end
  local u = kp * e + ki * integral
  if u > 1.2 then
    u = 1.2
  elseif u < 0 then
    u = 0
  else
    integral = integral + e * dt
  end
  outputs.pump(u)
  outputs.mode(mode)
  return 0.001
end
)";

struct LuaFixture {
    std::unique_ptr<wSimulationSystemScheme> scheme;
    std::unique_ptr<wSimulationSystem> system;
    wSimulationBlockDisc* block = nullptr;
};

// One Lua block with inputs setpoint and level, outputs pump and mode, running `script`.
LuaFixture loadScript(const std::string& tag, const char* script) {
    bench::writeTemp("vandrel-bench-lua-" + tag + ".script.lua", script);
    const std::string scheme = R"(simulation_scheme = {
  blocks = {
    { __name = "ctl", __type = "wBlockLuaDescriptor",
      inputs = { { name = "setpoint", type = 2 }, { name = "level", type = 2 } },
      outputs = { { name = "pump", type = 2 }, { name = "mode", type = 0 } },
      outPorts = {}, inPorts = {}, additional_params = {},
      __parameters = { ["File name"] = { value = "vandrel-bench-lua-)" +
                               tag + R"(.script.lua" } } },
  },
  io = { inputWires = {}, inputPorts = {},
         outputWires = { { name = "setpoint", type = 2 }, { name = "level", type = 2 } }, outputPorts = {} },
  connections = {
    { output_block = -666, output_lead = "setpoint", input_block = 0, input_lead = "setpoint", port = false },
    { output_block = -666, output_lead = "level", input_block = 0, input_lead = "level", port = false },
  },
}
)";
    LuaFixture f;
    f.scheme = std::make_unique<wSimulationSystemScheme>();
    f.scheme->loadForRuntime(bench::writeTemp("vandrel-bench-lua-" + tag + ".lua", scheme));
    f.system.reset(f.scheme->instantiate());
    f.system->setInput<double>("setpoint", 1.0);
    f.system->setInput<double>("level", 0.4);
    f.block = dynamic_cast<wSimulationBlockDisc*>(f.system->getBlock(0));
    return f;
}

// Arg 0: the trivial script, 1: the controller. Arg 1: 1 with the default limits, 0 without.
void BM_LuaRun(benchmark::State& state) {
    const bool controller = state.range(0) == 1;
    const bool limits = state.range(1) == 1;
    Lua::ScriptSettings settings;
    if (!limits) {
        settings.instructionBudget = 0;
        settings.memoryLimit = 0;
    }
    Lua::ScriptSettingsScope scope(settings);
    LuaFixture f = loadScript(std::string(controller ? "controller" : "trivial") + (limits ? "" : "-nolimit"),
                              controller ? kController : kTrivial);
    double t = 0.0;
    for (auto _ : state) {
        t += f.block->step(t);
        benchmark::DoNotOptimize(t);
    }
    state.counters["run_calls_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                           benchmark::Counter::kIsRate);
    state.SetLabel(std::string(controller ? "20-line controller" : "trivial") + (limits ? ", limits on" : ", no limits"));
}
BENCHMARK(BM_LuaRun)->Args({0, 1})->Args({0, 0})->Args({1, 1})->Args({1, 0});

// The same trivial block through simulate: scheduling included.
void BM_LuaSimulate(benchmark::State& state) {
    LuaFixture f = loadScript("simulate", kTrivial);
    double T = 0.0;
    for (auto _ : state) {
        T += f.system->simulate(T);
        benchmark::DoNotOptimize(T);
    }
    state.counters["run_calls_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                           benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LuaSimulate);

}  // namespace
