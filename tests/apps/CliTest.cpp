// The `vandrel` program through a real process, on the examples and small schemes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliProcess.h"
#include "support/SchemeFiles.h"

namespace {

namespace fs = std::filesystem;
using Result = testutil::CliResult;
using testutil::slurp;

class Cli : public testutil::CliProcess {};

std::vector<std::vector<std::string>> csv(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> cells;
        std::istringstream l(line);
        std::string cell;
        while (std::getline(l, cell, ',')) cells.push_back(cell);
        rows.push_back(cells);
    }
    return rows;
}

// y' = u - y with y(0) = 0 and H = 0.1: explicit Euler gives y_n = 1 - 0.9^n for u = 1.
const char* const kLag = R"(simulation_scheme = {
  blocks = {
    { __name = "c", __type = "wBlockConstantsDescriptor",
      values = { { name = "y0", type = 1 } }, __parameters = { y0 = { value = 0 } } },
    { __name = "e", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "u", coeff = 1 }, { name = "y", coeff = -1 } } },
    { __name = "y", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.1 },
  io = { inputWires = { { name = "y", type = 2 } }, inputPorts = {},
         outputWires = { { name = "u", type = 2 }, { name = "v", type = 3 } }, outputPorts = {} },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 1, input_lead = "u", port = false },
    { output_block = 2, output_lead = "output", input_block = 1, input_lead = "y", port = false },
    { output_block = 1, output_lead = "output", input_block = 2, input_lead = "input", port = false },
    { output_block = 0, output_lead = "y0", input_block = 2, input_lead = "output.initial", port = false },
    { output_block = 2, output_lead = "output", input_block = -666, input_lead = "y", port = false },
  },
}
)";

TEST_F(Cli, RunWritesOneRowPerStepMatchingEulerByHand) {
    const auto scheme = write("lag.lua", kLag);
    const Result r = run("run " + scheme.string() + " --until 1 --set u=1 --set v=1,2,3 -q");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rows = csv(r.out);
    ASSERT_EQ(rows.size(), 11u);
    EXPECT_EQ(rows[0], (std::vector<std::string>{"time", "y"}));
    for (int n = 1; n <= 10; ++n) {
        const auto& row = rows[static_cast<std::size_t>(n)];
        EXPECT_NEAR(std::stod(row[0]), 0.1 * n, 1e-12);
        EXPECT_NEAR(std::stod(row[1]), 1 - std::pow(0.9, n), 1e-12) << "step " << n;
    }
}

TEST_F(Cli, RunSamplesOnAGridAndFeedsInputsFromCsv) {
    const auto scheme = write("lag.lua", kLag);
    // u = 0 until t = 0.5, then 1: y stays 0, then approaches 1 by Euler steps of at most 0.1.
    const auto inputs = write("u.csv", "time,u,v.y\n0,0,0\n0.5,1,2\n");
    const Result r = run("run " + scheme.string() + " --until 1 --every 0.25 --inputs " + inputs.string() + " -q");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rows = csv(r.out);
    ASSERT_EQ(rows.size(), 6u);  // header, 0, 0.25, 0.5, 0.75, 1
    EXPECT_EQ(rows[1], (std::vector<std::string>{"0", "0"}));
    EXPECT_EQ(rows[2][0], "0.25");
    EXPECT_EQ(std::stod(rows[3][1]), 0.0);  // y(0.5): input not yet 1
    // The input changes at 0.5: Euler steps of 0.1 from there, the last one cut to land on
    // 0.75, y = 1 - 0.9^2 (1 - 0.05).
    EXPECT_NEAR(std::stod(rows[4][1]), 1 - std::pow(0.9, 2) * 0.95, 1e-12);
    // Then 0.1, 0.1 and a last step of 0.05 to 1.0.
    EXPECT_NEAR(std::stod(rows[5][1]), 1 - std::pow(0.9, 4) * 0.95 * 0.95, 1e-12);
}

TEST_F(Cli, EveryPrintsExactMultiplesFromTheStartWhateverTheEventsDo) {
    // The only discrete block is a one-shot reset an hour away, and the adaptive solver may
    // step 1000 s at once: rows still come at 0, 0.1, ..., 1, with x' = 1 exact at each.
    testutil::SchemeText s;
    const int c = s.block("c", "wBlockConstantsDescriptor", "one = { value = 1 }, zero = { value = 0 }",
                          "values = { { name = \"one\", type = 1 }, { name = \"zero\", type = 1 } }");
    const int x = s.block("x", "wBlockIntegratorDescriptor<double>");
    const int once = s.block("once", "wBlockDelayTriggerDescriptor",
                             "dt = { value = 3600 }, enabled = { value = true }, delay_time = { value = 3600 }");
    s.wire(c, "one", x, "input");
    s.wire(c, "zero", x, "output.initial");
    s.port(once, "timed_out", testutil::kCmds, "reset_diff_state");
    s.outputWire(x, "output", "x", LEAD_DOUBLE);
    s.solver("__type = \"wSolverDopri5Descriptor\", H = 1000, rtol = 1e-9, atol = 1e-12");
    const auto scheme = write("once.lua", s.text());
    const Result r = run("run " + scheme.string() + " --until 1 --every 0.1 -q");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rows = csv(r.out);
    ASSERT_EQ(rows.size(), 12u);
    const char* times[] = {"0", "0.1", "0.2", "0.3", "0.4", "0.5", "0.6", "0.7", "0.8", "0.9", "1"};
    for (int k = 0; k <= 10; ++k) {
        const auto& row = rows[static_cast<std::size_t>(k + 1)];
        EXPECT_EQ(row[0], times[k]);
        EXPECT_NEAR(std::stod(row[1]), 0.1 * k, 1e-12) << row[0];
    }
}

TEST_F(Cli, AStateFileContinuesARunExactlyAsIfUninterrupted) {
    // Run to the end at once, and in two halves through --state-out / --state-in: the
    // second half's table (less its first row, the first half's last) is the same text.
    struct Case {
        const char* example;
        const char* until;
        const char* half;
        const char* every;
    };
    const Case cases[] = {
        {"projectile.lua", "1.2", "0.5", "0.05"},   // adaptive steps carried across
        {"slew_limiters.lua", "3", "1.5", "0.25"},  // nested systems
        {"pump_control.lua", "7200", "3000", "60"}, // Lua blocks and timers
        {"stiff_thermal.lua", "3600", "1200", "60"},  // CVODE, restarted at the saved time
        {"tank_level.lua", "40", "17", "1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.example);
        const std::string scheme = example(c.example);
        const std::string every = std::string(" --every ") + c.every + " -q";
        const auto state = dir_ / "half.state";
        const Result whole = run("run " + scheme + " --until " + c.until + every);
        ASSERT_EQ(whole.status, 0) << whole.err;
        const Result first = run("run " + scheme + " --until " + c.half + every + " --state-out " + state.string());
        ASSERT_EQ(first.status, 0) << first.err;
        const Result second = run("run " + scheme + " --until " + c.until + every + " --state-in " + state.string());
        ASSERT_EQ(second.status, 0) << second.err;
        const std::size_t header = second.out.find('\n') + 1;
        const std::size_t firstRow = second.out.find('\n', header) + 1;
        // The restored table starts with the row the first one ended with.
        EXPECT_EQ(first.out.substr(first.out.rfind('\n', first.out.size() - 2) + 1),
                  second.out.substr(header, firstRow - header));
        const std::string joined = first.out + second.out.substr(firstRow);
        if (std::string(c.example) == "stiff_thermal.lua") {
            // CVODE's history starts afresh at the restore: the same within its tolerance.
            const auto a = csv(whole.out), b = csv(joined);
            ASSERT_EQ(a.size(), b.size());
            for (std::size_t i = 1; i < a.size(); ++i)
                for (std::size_t j = 0; j < a[i].size(); ++j)
                    EXPECT_NEAR(std::stod(a[i][j]), std::stod(b[i][j]), 1e-3 * (1 + std::fabs(std::stod(a[i][j]))));
        } else {
            EXPECT_EQ(joined, whole.out);
        }
    }
}

TEST_F(Cli, TankExampleSettlesAtTheProportionalEquilibrium) {
    const auto out = dir_ / "tank.csv";
    const auto png = dir_ / "tank.png";
    const Result r = run("run " + example("tank_level.lua") + " --until 60 --every 1 -q --out " + out.string() +
                         " --plot " + png.string());
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rows = csv(slurp(out));
    ASSERT_EQ(rows.size(), 62u);  // t = 0, 1, ..., 60
    EXPECT_EQ(rows[0], (std::vector<std::string>{"time", "level", "setpoint", "pump"}));
    for (std::size_t i = 1; i < rows.size(); ++i) EXPECT_EQ(rows[i][0], std::to_string(i - 1)) << i;
    // Setpoint: 0.05 m/s ramp, then 1.5. Level: 2.5 (1.5 - h) = 0.5 h gives h = 1.25.
    EXPECT_NEAR(std::stod(rows[11][2]), 0.5, 1e-9);
    EXPECT_EQ(std::stod(rows[61][2]), 1.5);
    EXPECT_NEAR(std::stod(rows[61][1]), 1.25, 1e-6);
    EXPECT_NEAR(std::stod(rows[61][3]), 0.625, 1e-6);
    EXPECT_EQ(slurp(png).substr(1, 3), "PNG");
}

TEST_F(Cli, OverridesAndStateFilesContinueARun) {
    const std::string scheme = example("speed_control.lua");
    const std::string overrides = " --overrides " + example("speed_control.overrides.lua");
    // Without overrides the open reference speed is refused, naming the file.
    Result r = run("run " + scheme + " --until 1 -q");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Error while loading " + scheme + ": Parameter not defined: targets.speed_ref"), std::string::npos)
        << r.err;

    // The setpoint profile (50 rpm/s) is discrete state: a second run restored at t = 1
    // continues it from 50 rpm.
    const auto state = dir_ / "state.bin";
    r = run("run " + scheme + overrides + " --until 1 --every 0.5 -q --state-out " + state.string());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NEAR(std::stod(csv(r.out).back()[2]), 50, 1e-9);
    r = run("run " + scheme + overrides + " --until 2 --every 0.5 -q --state-in " + state.string());
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rows = csv(r.out);
    ASSERT_GE(rows.size(), 4u);
    // The table starts where the first one ended, and goes on from there.
    EXPECT_EQ(rows[1][0], "1");
    EXPECT_NEAR(std::stod(rows[1][2]), 50, 1e-9);
    EXPECT_EQ(rows[2][0], "1.5");
    EXPECT_NEAR(std::stod(rows[2][2]), 75, 1e-9);
    // Ending before the saved time is a mistake, not an empty table.
    r = run("run " + scheme + overrides + " --until 0.5 -q --state-in " + state.string());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("--until 0.5 is before the time " + state.string() + " was saved at (1"), std::string::npos)
        << r.err;
}

TEST_F(Cli, ErrorsAndUsageMistakesHaveTheirExitStatus) {
    const auto scheme = write("lag.lua", kLag);
    Result r = run("run " + scheme.string() + " --set nosuch=1");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no input wire \"nosuch\""), std::string::npos) << r.err;
    r = run("run " + scheme.string() + " --set v=1,2");
    EXPECT_EQ(r.status, 2);
    r = run("run " + scheme.string() + " --frobnicate");
    EXPECT_EQ(r.status, 2);
    r = run("frobnicate");
    EXPECT_EQ(r.status, 2);

    const auto broken = write("broken.lua", "simulation_scheme = { blocks = { { __name = \"x\", __type = \"NoSuchBlock\" } } }\n");
    r = run("check " + broken.string());
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Error while loading " + broken.string() + ": Block NoSuchBlock not found"), std::string::npos)
        << r.err;
    const auto syntax = write("syntax.lua", "simulation_scheme = {\n  blocks = {\n");
    r = run("check " + syntax.string());
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(syntax.string()), std::string::npos) << r.err;

    r = run("check " + example("thermostat.lua"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("OK: "), std::string::npos);
}

TEST_F(Cli, SafeScriptsKeepScriptBlocksAwayFromFilesAndTheProcess) {
    // The pump example needs nothing that safe scripts lack; the storm brings in the
    // assist pump (state 2), the level peaks near 3.1 m and is pumped back down.
    Result r = run("run " + example("pump_control.lua") + " --until 7200 --every 60 -q --safe-scripts");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rows = csv(r.out);
    ASSERT_EQ(rows.size(), 122u);  // t = 0, 60, ..., 7200
    EXPECT_EQ(rows[0], (std::vector<std::string>{"time", "level", "q_in", "q_out", "pumps", "state"}));
    int assisted = 0;
    double peak = 0.0;
    for (std::size_t i = 1; i < rows.size(); ++i) {
        assisted += rows[i][5] == "2";
        peak = std::max(peak, std::stod(rows[i][1]));
        EXPECT_GT(std::stod(rows[i][1]), 0.0) << "row " << i;
    }
    EXPECT_GT(assisted, 0);
    EXPECT_GT(peak, 2.8);
    EXPECT_LT(peak, 3.5);
    EXPECT_LT(std::stod(rows.back()[1]), 1.3);

    // A script that writes a file: allowed by default, refused with --safe-scripts.
    const fs::path target = dir_ / "written.txt";
    write("writer.lua", "function init() local f = io.open('" + target.string() +
                            "', 'w') f:write('x') f:close() end\nfunction run(t) outputs.y(1) return 1 end\n");
    const auto scheme = write("script.lua", R"(simulation_scheme = {
  blocks = {
    { __name = "w", __type = "wBlockLuaDescriptor", inputs = {}, outputs = { { name = "y", type = 2 } },
      inPorts = {}, outPorts = {}, additional_params = {},
      __parameters = { ["File name"] = { value = "writer.lua" } } },
  },
  io = { inputWires = { { name = "y", type = 2 } }, inputPorts = {}, outputWires = {}, outputPorts = {} },
  connections = { { output_block = 0, output_lead = "y", input_block = -666, input_lead = "y", port = false } },
}
)");
    r = run("run " + scheme.string() + " --until 1 -q --safe-scripts");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Error: [string \"?\"]:1: attempt to index global 'io' (a nil value) (in init of Lua block w)"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(fs::exists(target));
    r = run("run " + scheme.string() + " --until 1 -q");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(slurp(target), "x");
}

TEST_F(Cli, FmtIsIdempotentAndCheckDetectsNonCanonicalFiles) {
    const auto scheme = write("lag.lua", kLag);
    EXPECT_EQ(run("fmt --check " + scheme.string()).status, 1);
    const auto once = dir_ / "once.lua", twice = dir_ / "twice.lua";
    ASSERT_EQ(run("fmt " + scheme.string() + " -o " + once.string()).status, 0);
    ASSERT_EQ(run("fmt " + once.string() + " -o " + twice.string()).status, 0);
    EXPECT_EQ(slurp(once), slurp(twice));
    EXPECT_EQ(run("fmt --check " + once.string()).status, 0);
    // The canonical file still runs the same.
    const Result a = run("run " + scheme.string() + " --until 0.5 --set u=1 -q");
    const Result b = run("run " + once.string() + " --until 0.5 --set u=1 -q");
    EXPECT_EQ(a.out, b.out);
}

TEST_F(Cli, BlocksListsTheLibraryAndDumpShowsTheLayout) {
    Result r = run("blocks");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.find("wBlockANDDescriptor"), 0u);
    EXPECT_NE(r.out.find("wBlockVectorPickerDescriptor"), std::string::npos);
    r = run("blocks --verbose");
    EXPECT_NE(r.out.find("parameters: dt (double, default 0) slope (double, default 0)"), std::string::npos);
    r = run("dump " + example("tank_level.lua"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.find("Debug dump of system:"), 0u);
    EXPECT_NE(r.out.find("Dumping block \"level\" (I (dbl))"), std::string::npos);
    EXPECT_EQ(run("run --help").status, 0);
}

}  // namespace

// x' = u with x(0) = 2 * x0 + u, where x0 is a constant and u a scheme input: the initial
// value passes through a stateless block and a scheme input before the first step.
constexpr const char* kInitial = R"(simulation_scheme = {
  blocks = {
    { __name = "c", __type = "wBlockConstantsDescriptor",
      values = { { name = "x0", type = 1 } }, __parameters = { x0 = { value = 1.5 } } },
    { __name = "init", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "a", coeff = 2 }, { name = "b", coeff = 1 } } },
    { __name = "x", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.25 },
  io = { inputWires = { { name = "x", type = 2 } }, inputPorts = {},
         outputWires = { { name = "u", type = 2 } }, outputPorts = {} },
  connections = {
    { output_block = 0, output_lead = "x0", input_block = 1, input_lead = "a", port = false },
    { output_block = -666, output_lead = "u", input_block = 1, input_lead = "b", port = false },
    { output_block = -666, output_lead = "u", input_block = 2, input_lead = "input", port = false },
    { output_block = 1, output_lead = "output", input_block = 2, input_lead = "output.initial", port = false },
    { output_block = 2, output_lead = "output", input_block = -666, input_lead = "x", port = false },
  },
})";

TEST_F(Cli, IntegratorsStartAtTheirInitialValuesUnlessToldNot) {
    const std::string scheme = write("initial.lua", kInitial).string();
    struct Case {
        std::string options;
        double x0;  // x at t = 0, before integrating u = 2 for 0.5 s
    };
    for (const Case& c : {Case{"", 5.0}, Case{" --no-initial-values", 0.0}}) {
        const Result r = run("run " + scheme + " --until 0.5 --set u=2 -q" + c.options);
        ASSERT_EQ(r.status, 0) << r.err;
        const auto rows = csv(r.out);
        ASSERT_EQ(rows.size(), 3u) << r.out;
        EXPECT_NEAR(std::stod(rows[1][1]), c.x0 + 0.5, 1e-12) << c.options;
        EXPECT_NEAR(std::stod(rows[2][1]), c.x0 + 1.0, 1e-12) << c.options;
    }
}
