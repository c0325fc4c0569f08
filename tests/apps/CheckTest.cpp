// `vandrel check` through a real process: the summary, the periods it refuses, the order
// it warns about, the entries a load does not read, and load errors as users see them.
#include <gtest/gtest.h>

#include <string>

#include "support/CliProcess.h"

namespace {

class Check : public testutil::CliProcess {};

// Two ramps: r1 follows r2, r2 follows the scheme input u; r1 is listed first. `r1` and
// `r2` are the parameter tables, `extra` more keys of r1's entry.
std::string ramps(const std::string& r1, const std::string& r2, const std::string& extra = "") {
    return R"(simulation_scheme = {
  blocks = {
    { __name = "r1", __type = "wBlockRampDescriptor", __parameters = { )" + r1 + " }" + extra + R"( },
    { __name = "r2", __type = "wBlockRampDescriptor", __parameters = { )" + r2 + R"( } },
  },
  io = { inputWires = { { name = "y", type = 2 } }, inputPorts = {},
         outputWires = { { name = "u", type = 2 } }, outputPorts = {} },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 1, input_lead = "target", port = false },
    { output_block = 1, output_lead = "output", input_block = 0, input_lead = "target", port = false },
    { output_block = 0, output_lead = "output", input_block = -666, input_lead = "y", port = false },
  },
}
)";
}

// y' = u with Euler steps of 0.1 s: a continuous scheme for the summary of its solver.
const char* const kLag = R"(simulation_scheme = {
  blocks = { { __name = "y", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} } },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.1 },
  io = { inputWires = { { name = "y", type = 2 } }, inputPorts = {},
         outputWires = { { name = "u", type = 2 }, { name = "y0", type = 2 } }, outputPorts = {} },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "input", port = false },
    { output_block = -666, output_lead = "y0", input_block = 0, input_lead = "output.initial", port = false },
    { output_block = 0, output_lead = "output", input_block = -666, input_lead = "y", port = false },
  },
}
)";

TEST_F(Check, ReportsPeriodsOrderUnreadEntriesAndSummary) {
    const std::string fast = "dt = { value = 0.5 }, slope = { value = 1 }", slow = "dt = { value = 1 }, slope = { value = 2 }";
    struct Case {
        std::string text;
        int status;
        std::string out, err;
    };
    const std::string summary = "OK: F: 2 blocks (0 stateless, 0 continuous, 2 discrete), 3 connections, data area 24 bytes\n"
         "  discrete: 2 Ramp block\n"
         "  connections: 3 wires, 0 ports; scheme 1 input wires, 1 output wires, 0 input ports, 0 output ports\n"
         "  states: 0 continuous; 0 bytes of discrete state\n"
         "  discrete blocks, in the order they run at one instant:\n"
         "    1. r1 (Ramp block) every 0.5 s\n"
         "    2. r2 (Ramp block) every 1 s\n"
         "  solver: none (no continuous blocks)\n";
    const std::string order = "vandrel: warning: F: block r1 (Ramp block) at simulation_scheme.blocks[1] reads the wire output of block r2"
         " (Ramp block) at simulation_scheme.blocks[2], and both run at t = 0 and every 1 s; r2 runs after r1, so r1"
         " reads the value from before each of those instants: list r2 before r1 in simulation_scheme.blocks if it"
         " should read the new one\n";
    std::string misspelt = ramps(fast, slow);
    misspelt.replace(misspelt.find("\"target\""), 8, "\"targt\"");
    // r2 reaches r1 through a sum instead.
    std::string throughSum = ramps(fast, slow);
    const std::string direct = "{ output_block = 1, output_lead = \"output\", input_block = 0, input_lead = \"target\", port = false },";
    throughSum.replace(throughSum.find(direct), direct.size(),
                       "{ output_block = 1, output_lead = \"output\", input_block = 2, input_lead = \"a\", port = false },\n"
                       "{ output_block = 2, output_lead = \"output\", input_block = 0, input_lead = \"target\", port = false },");
    throughSum.replace(throughSum.find("  },\n  io"), 0,
                       "    { __name = \"s\", __type = \"wBlockSummatorDescriptor<double>\", __parameters = {},"
                       " inputs = { { name = \"a\", coeff = 1 } } },\n");
    const Case cases[] = {
        {ramps(fast, slow), 0, summary, order},
        {ramps(fast, "dt = { value = 0 }, slope = { value = 2 }"), 1, "",
         "vandrel: F: block r2 (Ramp block) at simulation_scheme.blocks[2] has dt = 0: a discrete block's period must"
         " be a positive number of seconds\n"},
        {ramps(fast + ", slop = { value = 3 }", slow, ", colour = 'red'"), 0, summary,
         "vandrel: warning: F: simulation_scheme.blocks[1].__parameters.slop was not read: block r1 (Ramp block) has"
         " no parameter slop; did you mean slope?\n"
         "vandrel: warning: F: simulation_scheme.blocks[1].colour was not read: block r1 (Ramp block) does not use"
         " the key colour\n" + order},
        {ramps("dt = { value = 0.5 }, slop = { value = 1 }", slow), 1, "",
         "vandrel: Error while loading F: simulation_scheme.blocks[1].__parameters.slope is missing: block r1 needs"
         " its parameter slope, as slope = { value = ... }; is slop meant to be slope?\n"},
        {misspelt, 1, "",
         "vandrel: Error while loading F: Block 1 has no input targt: the input wires of block r2 (Ramp block) at"
         " simulation_scheme.blocks[2] are target (double); did you mean target? (at simulation_scheme.connections[1])\n"},
        {throughSum, 0,
         "OK: F: 3 blocks (1 stateless, 0 continuous, 2 discrete), 4 connections, data area 32 bytes\n"
         "  stateless: 1 Sum (dbl)\n"
         "  discrete: 2 Ramp block\n"
         "  connections: 4 wires, 0 ports; scheme 1 input wires, 1 output wires, 0 input ports, 0 output ports\n"
         "  states: 0 continuous; 0 bytes of discrete state\n"
         "  discrete blocks, in the order they run at one instant:\n"
         "    1. r1 (Ramp block) every 0.5 s\n"
         "    2. r2 (Ramp block) every 1 s\n"
         "  solver: none (no continuous blocks)\n",
         "vandrel: warning: F: block r1 (Ramp block) at simulation_scheme.blocks[1] reads the wire output of block r2"
         " (Ramp block) at simulation_scheme.blocks[2] through stateless blocks, and both run at t = 0 and every 1 s;"
         " r2 runs after r1, so r1 reads the value from before each of those instants: list r2 before r1 in"
         " simulation_scheme.blocks if it should read the new one\n"},
        {kLag, 0,
         "OK: F: 1 blocks (0 stateless, 1 continuous, 0 discrete), 3 connections, data area 24 bytes\n"
         "  continuous: 1 I (dbl)\n"
         "  connections: 3 wires, 0 ports; scheme 2 input wires, 1 output wires, 0 input ports, 0 output ports\n"
         "  states: 1 continuous; 0 bytes of discrete state\n"
         "  solver: wSolverExplEulerDescriptor, H = 0.1\n",
         ""},
    };
    for (const Case& c : cases) {
        const std::string file = write("scheme.lua", c.text).string();
        const testutil::CliResult r = run("check " + file);
        auto local = [&](std::string text) {
            for (auto at = text.find(file); at != std::string::npos; at = text.find(file)) text.replace(at, file.size(), "F");
            return text;
        };
        EXPECT_EQ(r.status, c.status) << c.text;
        EXPECT_EQ(local(r.out), c.out) << c.text;
        EXPECT_EQ(local(r.err), c.err) << c.text;
    }
}

TEST_F(Check, RefusesAZeroPeriodInsideASubsystem) {
    std::filesystem::copy_file(example("slew_limit.sch"), dir_ / "slew_limit.sch");
    std::string outer = testutil::slurp(example("slew_limiters.lua"));
    const std::string step = "[\"limiter.dt\"] = { value = 0.1 }";
    outer.replace(outer.find(step), step.size(), "[\"limiter.dt\"] = { value = 0 }");
    const testutil::CliResult r = run("check " + write("outer.lua", outer).string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "vandrel: " + (dir_ / "outer.lua").string() + ": block fast.limiter (Ramp block) at"
                     " simulation_scheme.blocks[1] of " + dir_.string() + "/slew_limit.sch has dt = 0: a discrete"
                     " block's period must be a positive number of seconds\n");
}

TEST_F(Check, SummaryOfManyDiscreteBlocksFitsAScreen) {
    std::string blocks;
    for (int i = 1; i <= 21; ++i)
        blocks += "{ __name = \"c" + std::to_string(i) + "\", __type = \"wBlockConstantsDescriptor\", values = {}, __parameters = {} },\n";
    const std::string file = write("many.lua", "simulation_scheme = { blocks = {\n" + blocks +
                                                   "}, io = { inputWires = {}, inputPorts = {}, outputWires = {},"
                                                   " outputPorts = {} }, connections = {} }\n")
                                 .string();
    const testutil::CliResult r = run("check " + file);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("    20. c20 (Constants block) on its own schedule\n    ... and 1 more\n  solver"), std::string::npos)
        << r.out;
}

TEST_F(Check, FmtCheckSaysWhatARewriteWouldLose) {
    const std::string file =
        write("scheme.lua", "-- a ramp\n" + ramps("dt = { value = 0.5 }, slope = { value = 1 }, slop = { value = 2 }",
                                                  "dt = { value = 1 }, slope = { value = 2 }"))
            .string();
    const testutil::CliResult r = run("fmt --check " + file);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "vandrel: " + file + ": simulation_scheme.blocks[1].__parameters.slop = a table would be dropped: block r1"
                         " (Ramp block) has no parameter slop; did you mean slope?\n" +
                         "vandrel: " + file + ": its comments would be dropped (the first is on line 1)\n" +
                         "vandrel: " + file + " is not in canonical form\n");
    EXPECT_EQ(testutil::slurp(file).rfind("-- a ramp\n", 0), 0u);  // --check writes nothing
}

}  // namespace
